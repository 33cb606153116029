#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <log/log.h>

#include "modules/Example/ExampleModule.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/WaitFor.h"

namespace {

using velmar::tarnis::ExampleModule;

class ExampleModuleTest : public tarnis_test::ModuleTest {};

TEST_F(ExampleModuleTest, TicksOnceADayAndReportsEachTick) {
    LoadModules();
    EXPECT_EQ(Dump({"Example"}), "Dumping module Example: \nticks: 0\nExampleWorker: running\nboot completed: no\n\n"
                                 "-------------------------------------\n");
    AdvanceAndSettle(ExampleModule::kPeriodMs - 60 * 1000);
    EXPECT_TRUE(JournalEvents().empty());
    AdvanceAndSettle(60 * 1000);
    AdvanceAndSettle(ExampleModule::kPeriodMs);
    const std::vector<Json::Value> events = JournalEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]["call"].asString(), "reportEventV2");
    EXPECT_EQ(events[0]["args"][2].asString(), "1");
    EXPECT_EQ(events[1]["args"][2].asString(), "2");
    EXPECT_TRUE(log_.HasLine("[Tick] tick 2", "ExampleModule", ANDROID_LOG_INFO));
    // The worker's wait ends with the boot and hands the news to the handler.
    android::base::SetProperty("sys.boot_completed", "1");
    const std::string booted = "Dumping module Example: \nticks: 2\nExampleWorker: finished\nboot completed: yes\n\n"
                               "-------------------------------------\n";
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return Dump({"Example"}) == booted; })) << Dump({"Example"});
    EXPECT_TRUE(log_.HasLine("[OnBootCompleted] boot completed", "ExampleModule", ANDROID_LOG_INFO));
}

}  // namespace
