#pragma once

#include <string>

#include "platform/UniqueFd.h"

// What only a host run needs, in one place: on a device, init keeps one
// daemon per system, stops it, and binder needs no client-side limits. The
// daemon's entry point and the command-line tools reach these, nothing else.
namespace platform {
namespace host {

// Takes the lock that makes this the only `name` running on the current root.
// On failure the result is not ok() and `why` says who holds it (or what went wrong).
android::base::unique_fd AcquireInstanceLock(const std::string& name, std::string* why);
// Gives the lock up and removes its file (before a clean exit).
void ReleaseInstanceLock(const std::string& name, android::base::unique_fd lock);

// Withdraws every binder service this process added: their sockets are
// removed, so clients see at once that nobody serves them.
void WithdrawServices();

// A time limit for every binder call this process makes (< 0: none), and the
// sentence that says why the last failed call of this thread failed.
void SetBinderCallTimeoutMs(int timeoutMs);
const std::string& LastBinderError();

}  // namespace host
}  // namespace platform
