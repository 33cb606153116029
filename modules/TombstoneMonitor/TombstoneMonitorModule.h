#pragma once

#include <memory>
#include <thread>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "modules/TombstoneMonitor/TombstoneMonitorThread.h"

namespace velmar {
namespace tarnis {

// Mirrors tombstones for the life of the daemon. The monitor blocks for
// minutes (the wait for the output directory) and then for ever (the event
// reads), so it runs on a thread the module owns instead of the module's
// handler thread: removal joins the handler thread before the module is
// deleted, and only a loop off that thread can be told to stop by the
// destructor.
class TombstoneMonitorModule : public kolto::ModuleBase {
public:
    ~TombstoneMonitorModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void MonitorFinished();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    std::unique_ptr<TombstoneMonitorThread> worker_;
    std::thread thread_;
};

}  // namespace tarnis
}  // namespace velmar
