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
    void* stack = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) return -1;
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    Start start{body, arg};
    const pid_t pid = clone(ChildEntry, static_cast<char*>(stack) + kStackBytes, CLONE_VM | CLONE_VFORK | SIGCHLD,
                            &start);
    const int cloneErrno = errno;
    platform::host::MarkSpawnedChild(false);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    // The child has exec'd or exited: its stack is free again. Its frames
    // never returned, so AddressSanitizer still marks their red zones; a
    // later stack at the same address must not inherit them.
#if defined(__SANITIZE_ADDRESS__)
    ASAN_UNPOISON_MEMORY_REGION(stack, kStackBytes);
#endif
    munmap(stack, kStackBytes);
    errno = cloneErrno;
    return pid;
}

}  // namespace android
