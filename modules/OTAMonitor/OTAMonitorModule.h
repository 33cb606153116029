#pragma once

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "modules/OTAMonitor/OTAMonitor.h"

namespace velmar {
namespace tarnis {

// Records system updates in the black-box partition. The monitor waits on
// properties without limit, so it runs on the module's worker rather than on
// the module's handler thread, where removal (which joins that thread first)
// could never end it; the destructor stops and joins it.
class OTAMonitorModule : public kolto::ModuleBase {
public:
    ~OTAMonitorModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    // It posts nothing to the handler thread (removal goes through the
    // manager), so it needs no looper and is there for a dump from the start.
    kolto::ModuleWorker worker_{"OTAMonitor", nullptr};
    OtaMonitorControl control_{worker_.stopSignal()};
};

}  // namespace tarnis
}  // namespace velmar
