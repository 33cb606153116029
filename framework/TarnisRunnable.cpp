#include "framework/TarnisRunnable.h"

#include <cstdlib>
#include <new>

#include <android-base/logging.h>

#include "framework/TarnisFreeList.h"

namespace velmar {
namespace kolto {

namespace {

// Freed runnables are kept for reuse and never returned to the heap, like the
// messages that carry them.
struct FreeBlock {
    FreeBlock* next;
};

struct BlockLink {
    FreeBlock*& operator()(FreeBlock* block) const { return block->next; }
};

using RunnableFreeList = TarnisFreeList<FreeBlock, BlockLink>;

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
        if (FreeBlock* block = FreeList().take()) return block;
    }
    // Cache-line aligned: a runnable is written on the posting thread and
    // read on the looper's, and should cost one line to hand over.
    return ::operator new(size < sizeof(FreeBlock) ? sizeof(FreeBlock) : size, std::align_val_t(64),
                          std::nothrow);
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
    FreeList().give(static_cast<FreeBlock*>(p));
}

}  // namespace kolto
}  // namespace velmar
