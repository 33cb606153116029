#include "framework/TarnisRunnable.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include "platform/Log.h"

namespace velmar {
namespace kolto {

namespace {

// Freed runnables are kept for reuse and never returned to the heap, like the
// messages that carry them.
struct FreeBlock {
    FreeBlock* next;
};

struct RunnableFreeList {
    std::mutex lock;
    FreeBlock* head = nullptr;
};

RunnableFreeList& FreeList() {
    static RunnableFreeList* list = new RunnableFreeList;
    return *list;
}

}  // namespace

TarnisRunnable::TarnisRunnable(std::function<void(Object*)> fn) : fn_(std::move(fn)) {}

TarnisRunnable::TarnisRunnable(std::function<void()> task) : task_(std::move(task)) {}

void TarnisRunnable::run(Object* obj) {
    if (fn_) {
        std::function<void(Object*)> fn;
        fn.swap(fn_);
        fn(obj);
    } else if (task_) {
        std::function<void()> task;
        task.swap(task_);
        task();
    }
}

void* TarnisRunnable::operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (size == sizeof(TarnisRunnable)) {
        RunnableFreeList& list = FreeList();
        std::lock_guard<std::mutex> guard(list.lock);
        if (list.head != nullptr) {
            FreeBlock* block = list.head;
            list.head = block->next;
            return block;
        }
    }
    return ::operator new(size < sizeof(FreeBlock) ? sizeof(FreeBlock) : size, std::nothrow);
}

void* TarnisRunnable::operator new(std::size_t size) {
    void* p = operator new(size, std::nothrow);
    if (p == nullptr) {
        LOG(FATAL) << "TarnisRunnable: out of memory";
    }
    return p;
}

void TarnisRunnable::operator delete(void* p) noexcept {
    if (p == nullptr) return;
    RunnableFreeList& list = FreeList();
    std::lock_guard<std::mutex> guard(list.lock);
    FreeBlock* block = static_cast<FreeBlock*>(p);
    block->next = list.head;
    list.head = block;
}

}  // namespace kolto
}  // namespace velmar
