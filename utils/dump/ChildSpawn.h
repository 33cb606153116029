#pragma once

#include <string.h>
#include <sys/types.h>

namespace android {

// Starts `body(arg)` in a new child process that borrows this process's
// memory until it execs or exits, as vfork does; the calling thread waits
// that long. Copying the daemon's address space for every tool (fork) and
// tearing the copy down again at exec costs more than most tools run for;
// borrowing it costs neither.
//
// The body runs on a stack of its own with every signal blocked and every
// caught signal back at its default action, so no handler of the daemon can
// run in the child; it must only make system calls and write to its own
// stack (no allocation, no locks, no stdio), end in exec or _exit, and set
// the signal mask it wants the program to start with.
//
// Returns the child's pid, or -1 with errno when no child could be made.
pid_t SpawnChild(int (*body)(void* arg), void* arg);

// Ends a spawned child with `status`, as _exit does. Not declared noreturn on
// purpose: a sanitizer hooks calls to noreturn functions and, finding the
// child on a stack it does not know, writes a warning into the tool's output.
void ExitChild(int status);

// The text of `error` for a spawned child to write, which must take no lock:
// glibc's strerror may take the locale's, where strerrordesc_np reads a
// constant table (and gives null for a number it does not know); bionic has
// no strerrordesc_np, and its strerror reads a constant table for every
// known number.
inline const char* ChildErrorText(int error) {
#if defined(__BIONIC__)
    return strerror(error);
#else
    const char* text = strerrordesc_np(error);
    return text != nullptr ? text : "Unknown error";
#endif
}

}  // namespace android
