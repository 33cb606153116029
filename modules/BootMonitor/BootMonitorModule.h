#pragma once

#include <memory>
#include <mutex>

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "modules/BootMonitor/BootFailReport.h"
#include "modules/BootMonitor/BootMonitorThread.h"

namespace velmar {
namespace tarnis {

// Supervises the boot on a worker of its own and listens for the kernel's
// boot-stage time-outs on the process's listener. The module removes itself
// once the supervision ends, while the listener runs on for the life of the
// process: the reporter is shared with the listener's thread, which keeps it
// alive, and the module's removal does not stop it.
class BootMonitorModule : public kolto::ModuleBase {
public:
    BootMonitorModule();
    ~BootMonitorModule() override;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void SupervisionEnded();

    std::shared_ptr<BootFailReport> report;
    // Made on the module's thread, read by the dump.
    std::mutex lock_;
    // Declared before the worker, so that the worker is joined before the
    // supervision it runs goes.
    std::unique_ptr<android::BootMonitorThread> monitor_;
    std::unique_ptr<kolto::ModuleWorker> worker_;
};

}  // namespace tarnis
}  // namespace velmar
