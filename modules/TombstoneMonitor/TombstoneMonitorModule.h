#pragma once

#include <memory>

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "modules/TombstoneMonitor/TombstoneMonitorThread.h"

namespace velmar {
namespace tarnis {

// Mirrors tombstones for the life of the daemon. Waiting for the output
// directory takes up to a minute, so it is the module worker's; the events
// are then the framework listener's, on its own thread.
class TombstoneMonitorModule : public kolto::ModuleBase {
public:
    ~TombstoneMonitorModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void MonitorFinished();

    // The worker, which uses the monitor, is stopped and joined first when
    // the module goes.
    std::unique_ptr<TombstoneMonitorThread> monitor_;
    std::unique_ptr<kolto::ModuleWorker> worker_;
};

}  // namespace tarnis
}  // namespace velmar
