#define LOG_TAG "Tarnis-TombstoneMonitorModule"

#include "modules/TombstoneMonitor/TombstoneMonitorModule.h"

#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"


namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(TombstoneMonitorModuleRegister, TombstoneMonitorModule, "TombstoneMonitor", 0);

TombstoneMonitorModule::~TombstoneMonitorModule() {
    // The worker first: it may still be setting the monitor up.
    worker_.reset();
    monitor_.reset();
}

bool TombstoneMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-TombstoneMonitor", "[%s] tarnis TombstoneMonitor OnInit", __func__);
    worker_ = std::make_unique<kolto::ModuleWorker>("TombstoneSetup", nullptr);
    monitor_ = std::make_unique<TombstoneMonitorThread>(worker_->stopSignal());
    return true;
}

void TombstoneMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] load TombstoneMonitor", __func__);
    worker_->Start(handlerThread->getLooper(), [this](kolto::StopSignal&) {
        if (!monitor_->threadLoop()) worker_->PostToModule([this] { MonitorFinished(); });
    });
}

void TombstoneMonitorModule::MonitorFinished() {
    ALOGI("[%s] TombstoneMonitor done~", "OnAllModulesLoaded");
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", "OnAllModulesLoaded");
}

void TombstoneMonitorModule::dump(int fd, const char**, unsigned int) {
    if (worker_ == nullptr || monitor_ == nullptr) return;
    std::string text = worker_->Describe() + "\n";
    text += std::string("watching: ") + (monitor_->watching() ? "yes" : "no") + "\n";
    text += "tombstones copied: " + std::to_string(monitor_->copies()) + "\n";
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
