#pragma once

#include <chrono>

namespace tarnis_test {

// True once every looper of this process waits with nothing due across two
// looks with no dispatch in between, so work that work posts has run too;
// false after `timeout` of real time.
bool WaitAllLoopersIdle(std::chrono::milliseconds timeout);

}  // namespace tarnis_test
