#pragma once

#include <memory>
#include <thread>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "modules/OTAMonitor/OTAMonitor.h"

namespace velmar {
namespace tarnis {

// Records system updates in the black-box partition. The monitor waits on
// properties without limit, so it runs on a thread the module owns rather
// than on the module's handler thread, where removal (which joins that
// thread first) could never end it; the destructor stops and joins it.
class OTAMonitorModule : public kolto::ModuleBase {
public:
    ~OTAMonitorModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    std::unique_ptr<kolto::TarnisHandler> handler_;
    OtaMonitorControl control_;
    std::thread thread_;
};

}  // namespace tarnis
}  // namespace velmar
