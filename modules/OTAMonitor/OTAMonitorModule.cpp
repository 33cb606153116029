#define LOG_TAG "OTAMonitor"

#include "modules/OTAMonitor/OTAMonitorModule.h"

#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(OTAMonitorModuleRegister, OTAMonitorModule, "OTAMonitor", 0);

OTAMonitorModule::~OTAMonitorModule() {
    control_.RequestStop();
    if (thread_.joinable()) thread_.join();
}

bool OTAMonitorModule::OnInit() {
    ALOGI("tarnis OTAMonitorModule OnInit");
    return true;
}

void OTAMonitorModule::OnAllModulesLoaded() {
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    thread_ = std::thread([this] {
        ota_monitor_func(&control_);
        if (!control_.StopRequested()) handler_->post([this] { kolto::removeModule(name, true); });
    });
}

void OTAMonitorModule::dump(int fd, const char**, unsigned int) {
    android::base::WriteStringToFd("ota passes: " + std::to_string(control_.passes()) + "\n", fd);
}

}  // namespace tarnis
}  // namespace velmar
