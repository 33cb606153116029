#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"

namespace velmar {
namespace tarnis {

// Waits for the exception collector's directory, then watches it for fatal
// crash databases for the life of the daemon.
//
// The wait for the directory is a chain of one-second delayed steps on the
// module's handler, and the watch runs on a worker thread that the module
// owns rather than on the handler thread: the module's own thread stays free,
// and removing the module (its object goes only after its handler thread has
// been joined) can still stop the watch, which it does from the destructor.
class AndroidCrashMonitorModule : public kolto::ModuleBase {
public:
    static constexpr int kAeeDirWaits = 120;
    static constexpr long kAeeDirWaitMs = 1000;

    ~AndroidCrashMonitorModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void WaitAeeDirReady();
    void StartMonitor();
    void MonitorFinished();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    std::unique_ptr<AndroidCrashMonitorThread> worker_;
    std::thread thread_;
    std::atomic<int> waits_{0};
};

}  // namespace tarnis
}  // namespace velmar
