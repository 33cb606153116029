#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/LooperIdle.h"

namespace tarnis_test {

// Returns once the ModuleManager thread (and every other looper) has run
// everything that is due, work queued before this call and work that work
// posted included. A marker task posted "now" would not do: it jumps ahead
// of the "now" messages already queued.
inline void DrainManagerThread() {
    ASSERT_TRUE(WaitAllLoopersIdle(std::chrono::seconds(10))) << "the manager thread stayed busy";
}

}  // namespace tarnis_test
