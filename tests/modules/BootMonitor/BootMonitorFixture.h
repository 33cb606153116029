#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <android-base/unique_fd.h>

#include "tests/support/ModuleTest.h"

namespace bootmonitor_test {

// A peer on a reserved socket below the root (<root>/dev/socket/NAME) that
// answers each connection with `serve` on a thread of its own.
class FakeSocketServer {
public:
    FakeSocketServer(const std::string& name, std::function<void(int fd)> serve);
    ~FakeSocketServer();
    int connections() const { return connections_.load(); }

private:
    android::base::unique_fd listen_;
    std::function<void(int)> serve_;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
};

// The light boot-monitor dump service: it writes `fill` bytes into the file
// whose path the daemon recorded, then gives its 255-byte answer.
class FakeLiteDump {
public:
    FakeLiteDump(const std::string& recordPath, size_t fill);
    void SetFill(size_t fill) { fill_ = fill; }

private:
    std::atomic<size_t> fill_;
    FakeSocketServer server_;
};

class BootMonitorTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override;

    // Moves every path to the rescue partition ("ro.build.ab_update" true).
    void UseRescuePartition();
    // Where the light dump records the path of its file.
    std::string LiteRecord() const { return dumpRecord_; }

    // The file names of the captures made so far, in order.
    std::vector<std::string> Captures() const;
    bool Exists(const std::string& path) const;
    // Every file name in `dir`, sorted.
    std::vector<std::string> List(const std::string& dir) const;

    std::string dir_;     // the unhealthy-boot directory below the root
    std::string countPath_;
    std::string dumpRecord_;
};

}  // namespace bootmonitor_test
