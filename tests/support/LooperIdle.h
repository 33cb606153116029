#pragma once

#include <chrono>

namespace tarnis_test {

// Returns true once every looper of this process (the manager thread's and
// every module's) waits with nothing due, and stays so across two looks with
// no message dispatched in between: work that work posts, on any thread, has
// run too. False after `timeout` of real time, so a test fails instead of
// hanging.
bool WaitAllLoopersIdle(std::chrono::milliseconds timeout);

}  // namespace tarnis_test
