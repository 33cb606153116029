#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <log/log.h>

#include "tests/modules/BootMonitor/BootMonitorFixture.h"

namespace bootmonitor_test {
namespace {

using tarnis_test::ReadFile;
using tarnis_test::WriteFile;

class BootMonitorModuleTest : public BootMonitorTest {
protected:
    bool WaitForLine(const std::string& text, const std::string& tag) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!log_.HasLine(text, tag)) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }
};

TEST_F(BootMonitorModuleTest, DisabledMonitorRemovesItselfWhileTheListenerGoesOn) {
    WriteFile(countPath_, "disable");
    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnInit] tarnis BootMonitor OnInit", "Tarnis-BootMonitor", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load bootMonitor", "Tarnis-BootMonitorModule",
                             ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("explicit disable BootMonitor.", "BootMonitor", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("exit for invalid boot count.", "BootMonitor", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] bootMonitor done~", "Tarnis-BootMonitorModule",
                             ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] quited!!", "Tarnis-BootMonitorModule", ANDROID_LOG_INFO));
    WaitIdle();
    EXPECT_NE(Dump({"ModuleManager", "dump"}).find("BootMonitor\t\tStopped\n"), std::string::npos);
    EXPECT_EQ(ReadFile(countPath_), "disable");

    // The listener outlives the module; on a host without the protocol it
    // gives up at once.
    const int probe = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 23);
    if (probe >= 0) {
        close(probe);
        return;
    }
    EXPECT_TRUE(WaitForLine("create netlink socket error: " + std::string(strerror(errno)), "BootFailReport"));
}

}  // namespace
}  // namespace bootmonitor_test
