#include "modules/BootMonitor/BootMonitorModule.h"

#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "modules/BootMonitor/BootMonitorThread.h"

#define LOG_TAG "Tarnis-BootMonitorModule"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(BootMonitorModuleRegister, BootMonitorModule, "BootMonitor", 0);

BootMonitorModule::BootMonitorModule() : report(std::make_shared<BootFailReport>()) {}

BootMonitorModule::~BootMonitorModule() { report->Stop(); }

bool BootMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-BootMonitor", "[%s] tarnis BootMonitor OnInit", __func__);
    // The root is known by now; the constructor ran before it was.
    report->Load();
    return true;
}

void BootMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] load bootMonitor", __func__);
    std::shared_ptr<BootFailReport> listener = report;
    listenerThread = std::make_unique<std::thread>([listener] { listener->NetlinkInit(); });
    listenerThread->detach();

    android::BootMonitorThread().threadLoop();

    ALOGI("[%s] bootMonitor done~", __func__);
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", __func__);
}

}  // namespace tarnis
}  // namespace velmar
