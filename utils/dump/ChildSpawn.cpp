#include "utils/dump/ChildSpawn.h"

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include <host/Host.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace android {
namespace {

// Enough for exec's search of PATH (a path buffer on the stack) and the
// bodies' small frames, with a wide margin.
constexpr size_t kStackBytes = 256 * 1024;

struct Start {
    int (*body)(void*);
    void* arg;
};

// Each thread keeps the stack its children start on. Mapping a fresh one for
// every tool and unmapping it after the exec cost a cross-CPU TLB flush each
// time (the child ran on another CPU in this address space), besides the
// faults of touching new pages.
class ChildStack {
public:
    ~ChildStack() {
        if (base_ != nullptr) munmap(base_, kStackBytes);
    }
    // The stack's top, or null when none could be mapped.
    char* Top() {
        if (base_ == nullptr) {
            void* mapped =
                mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
            if (mapped == MAP_FAILED) return nullptr;
            base_ = static_cast<char*>(mapped);
        }
        return base_ + kStackBytes;
    }
    void* base() const { return base_; }

private:
    char* base_ = nullptr;
};

int ChildEntry(void* raw) {
    const Start* start = static_cast<const Start*>(raw);
    platform::host::MarkSpawnedChild(true);
    // Handlers are the daemon's and would run in its borrowed memory: every
    // caught signal goes back to its default before anything can arrive.
    // Ignored ones stay ignored, as across exec.
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction action;
        if (sigaction(sig, nullptr, &action) != 0) continue;
        if (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL) continue;
        action.sa_handler = SIG_DFL;
        action.sa_flags = 0;
        sigemptyset(&action.sa_mask);
        sigaction(sig, &action, nullptr);
    }
    return start->body(start->arg);
}

}  // namespace

void ExitChild(int status) { syscall(SYS_exit_group, status); }

pid_t SpawnChild(int (*body)(void* arg), void* arg) {
    // One child at a time per thread: the caller waits until it has exec'd
    // or exited, and only then is the stack free again.
    static thread_local ChildStack stack;
    char* top = stack.Top();
    if (top == nullptr) return -1;
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    Start start{body, arg};
    const pid_t pid = clone(ChildEntry, top, CLONE_VM | CLONE_VFORK | SIGCHLD, &start);
    const int cloneErrno = errno;
    platform::host::MarkSpawnedChild(false);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    // The child has exec'd or exited: its stack is free again. Its frames
    // never returned, so AddressSanitizer still marks their red zones; the
    // next child on this stack must not inherit them.
#if defined(__SANITIZE_ADDRESS__)
    ASAN_UNPOISON_MEMORY_REGION(stack.base(), kStackBytes);
#endif
    errno = cloneErrno;
    return pid;
}

}  // namespace android
