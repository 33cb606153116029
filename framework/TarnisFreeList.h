#pragma once

#include <cstddef>
#include <mutex>

namespace velmar {
namespace kolto {

// A process-wide free list of intrusive nodes with a small cache per thread.
// A looper's thread frees what a posting thread takes, so a single shared
// list would bounce its lock between the two on every message; nodes move
// between a thread's cache and the shared list in batches instead. Nodes are
// never returned to the heap. `Link` is a functor returning a reference to a
// node's link field.
template <class T, class Link>
class TarnisFreeList {
public:
    static constexpr size_t kRefill = 32;
    static constexpr size_t kFlushAt = 64;

    // A free node, or null when there is none anywhere.
    T* take() {
        Chain& cache = local().chain;
        if (cache.head == nullptr) {
            std::lock_guard<std::mutex> guard(lock_);
            for (size_t i = 0; i < kRefill && shared_.head != nullptr; ++i) {
                cache.pushBack(shared_.popFront());
            }
        }
        return cache.popFront();
    }

    void give(T* node) {
        Chain& cache = local().chain;
        cache.pushBack(node);
        if (cache.size >= kFlushAt) {
            std::lock_guard<std::mutex> guard(lock_);
            shared_.append(cache);
        }
    }

    // Nodes in the shared list and in the calling thread's cache.
    size_t size() {
        std::lock_guard<std::mutex> guard(lock_);
        return shared_.size + local().chain.size;
    }

private:
    struct Chain {
        T* head = nullptr;
        T* tail = nullptr;
        size_t size = 0;

        void pushBack(T* node) {
            Link()(node) = nullptr;
            if (tail == nullptr) {
                head = node;
            } else {
                Link()(tail) = node;
            }
            tail = node;
            ++size;
        }
        T* popFront() {
            T* node = head;
            if (node == nullptr) return nullptr;
            head = Link()(node);
            if (head == nullptr) tail = nullptr;
            Link()(node) = nullptr;
            --size;
            return node;
        }
        void append(Chain& other) {
            if (other.head == nullptr) return;
            if (tail == nullptr) {
                head = other.head;
            } else {
                Link()(tail) = other.head;
            }
            tail = other.tail;
            size += other.size;
            other = Chain();
        }
    };

    // A thread's cache goes back to the shared list when the thread ends.
    struct Local {
        TarnisFreeList* owner = nullptr;
        Chain chain;
        ~Local() {
            if (owner == nullptr || chain.head == nullptr) return;
            std::lock_guard<std::mutex> guard(owner->lock_);
            owner->shared_.append(chain);
        }
    };

    Local& local() {
        static thread_local Local cache;
        cache.owner = this;
        return cache;
    }

    std::mutex lock_;
    Chain shared_;
};

}  // namespace kolto
}  // namespace velmar
