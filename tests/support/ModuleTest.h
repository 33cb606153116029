#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestClock.h"

namespace aidl::velmar::system::tarnis::common {
class TarnisSsiImpl;
class TarnisInternal;
}  // namespace aidl::velmar::system::tarnis::common

namespace tarnis_test {

// The ground of every module suite: per test a fresh sandbox root, the test
// clock, a capture of every log line, and the daemon's two in-process services
// (a module's events land in the root's journal). A suite links one module;
// LoadModules() loads it as the daemon would, and TearDown removes it again.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Loads every registered module; returns once each module's OnAllModulesLoaded has run.
    void LoadModules();
    // Returns once no module thread has work due now; fails after seconds of real time instead of hanging.
    void WaitIdle();
    // Moves the test clock `ms` ahead and waits until what fell due has run.
    void AdvanceAndSettle(int64_t ms);
    // Removes module `name` as the module itself would, and waits for it.
    void RemoveModule(const std::string& name, bool quitSafely = true);

    // The dump as a client of the event service gets it.
    std::string Dump(const std::vector<std::string>& args);
    // The calls the journal recorded, one parsed object per line.
    std::vector<Json::Value> JournalEvents();
    // The path below the test's root of a device path.
    std::string Device(const std::string& path) const;

    TempDir root_;
    TestClock clock_;
    platform::LogCapture log_;
    std::shared_ptr<aidl::velmar::system::tarnis::common::TarnisSsiImpl> ssi_;
    std::shared_ptr<aidl::velmar::system::tarnis::common::TarnisInternal> internal_;
};

}  // namespace tarnis_test
