#define LOG_TAG "OTAMonitor"

#include "modules/OTAMonitor/OTAMonitorModule.h"

#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(OTAMonitorModuleRegister, OTAMonitorModule, "OTAMonitor", 0);

// The monitor's thread uses control_, which goes before the worker would.
OTAMonitorModule::~OTAMonitorModule() { worker_.Stop(); }

bool OTAMonitorModule::OnInit() {
    ALOGI("tarnis OTAMonitorModule OnInit");
    return true;
}

void OTAMonitorModule::OnAllModulesLoaded() {
    const bool started = worker_.Start([this](kolto::StopSignal& stop) {
        ota_monitor_func(&control_);
        // Stopped: the module is being removed already.
        if (!stop.Requested()) kolto::removeModule(name, true);
    });
    if (!started) kolto::removeModule(name, true);
}

void OTAMonitorModule::dump(int fd, const char**, unsigned int) {
    android::base::WriteStringToFd(worker_.Describe() + "\nota passes: " + std::to_string(control_.passes()) + "\n",
                                   fd);
}

}  // namespace tarnis
}  // namespace velmar
