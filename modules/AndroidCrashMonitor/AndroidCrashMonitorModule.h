#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "framework/TarnisHandler.h"
#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"

namespace velmar {
namespace tarnis {

// Waits for the exception collector's directory, then watches it for fatal
// crash databases for the life of the daemon.
//
// The wait for the directory is a chain of one-second delayed steps on the
// module's handler, and the watch runs on the module's worker rather than on
// the handler thread: the module's own thread stays free for its dump, and
// removing the module (its object goes only after its handler thread has
// been joined) stops and joins the worker with it.
class AndroidCrashMonitorModule : public kolto::ModuleBase {
public:
    static constexpr int kAeeDirWaits = 120;
    static constexpr long kAeeDirWaitMs = 1000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void WaitAeeDirReady();
    void StartMonitor();
    void MonitorFinished();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    // Made on the handler thread once its looper is there, read by dumps
    // from any thread: under lock_.
    std::mutex lock_;
    // monitor_ waits on worker_'s stop signal; declared first, it goes after
    // the worker has been stopped and joined.
    std::unique_ptr<AndroidCrashMonitorThread> monitor_;
    std::unique_ptr<kolto::ModuleWorker> worker_;
    std::atomic<int> waits_{0};
};

}  // namespace tarnis
}  // namespace velmar
