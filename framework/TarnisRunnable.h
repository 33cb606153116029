#pragma once

#include <cstddef>
#include <functional>

#include "framework/Object.h"

namespace velmar {
namespace kolto {

// A task carried by a message. Running it calls the function once and then
// destroys it, so a runnable runs at most once and releases whatever the
// task captured as soon as it has run.
//
// Tasks posted through a handler take no payload; they are kept as they come
// (a function<void()>) instead of being wrapped in a second function object,
// which would cost a heap allocation on every post. Runnables themselves come
// from a free list for the same reason.
class TarnisRunnable {
public:
    explicit TarnisRunnable(std::function<void(Object*)> fn);
    explicit TarnisRunnable(std::function<void()> task);
    ~TarnisRunnable() = default;
    TarnisRunnable(const TarnisRunnable&) = delete;
    TarnisRunnable& operator=(const TarnisRunnable&) = delete;

    void run(Object* obj);
    // True until the runnable has run.
    bool pending() const { return static_cast<bool>(fn_) || static_cast<bool>(task_); }

    static void* operator new(std::size_t size);
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* p) noexcept;

private:
    std::function<void(Object*)> fn_;
    std::function<void()> task_;
};

}  // namespace kolto
}  // namespace velmar
