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
    if (worker_ != nullptr) worker_->RequestStop();
    if (thread_.joinable()) thread_.join();
}

bool TombstoneMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-TombstoneMonitor", "[%s] tarnis TombstoneMonitor OnInit", __func__);
    worker_ = std::make_unique<TombstoneMonitorThread>();
    return true;
}

void TombstoneMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] load TombstoneMonitor", __func__);
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    thread_ = std::thread([this] {
        worker_->threadLoop();
        if (!worker_->StopRequested()) handler_->post([this] { MonitorFinished(); });
    });
}

void TombstoneMonitorModule::MonitorFinished() {
    ALOGI("[%s] TombstoneMonitor done~", "OnAllModulesLoaded");
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", "OnAllModulesLoaded");
}

void TombstoneMonitorModule::dump(int fd, const char**, unsigned int) {
    if (worker_ == nullptr) return;
    std::string text = std::string("watching: ") + (worker_->watching() ? "yes" : "no") + "\n";
    text += "tombstones copied: " + std::to_string(worker_->copies()) + "\n";
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
