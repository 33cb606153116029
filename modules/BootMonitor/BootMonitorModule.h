#pragma once

#include <memory>
#include <thread>

#include "framework/ModuleBase.h"
#include "modules/BootMonitor/BootFailReport.h"

namespace velmar {
namespace tarnis {

// Supervises the boot on the module's own thread and listens for the
// kernel's boot-stage time-outs on a detached thread of its own. The module
// removes itself once the supervision ends, while the listener runs on for
// the life of the process: the reporter is shared with the listener's
// thread, which keeps it alive.
class BootMonitorModule : public kolto::ModuleBase {
public:
    BootMonitorModule();
    ~BootMonitorModule() override;

    bool OnInit() override;
    void OnAllModulesLoaded() override;

private:
    std::shared_ptr<BootFailReport> report;
    std::unique_ptr<std::thread> listenerThread;
};

}  // namespace tarnis
}  // namespace velmar
