#define LOG_TAG "Tarnis-BootMonitorModule"

#include "modules/BootMonitor/BootMonitorModule.h"

#include <log/log.h>

#include <memory>
#include <mutex>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "modules/BootMonitor/BootMonitorThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(BootMonitorModuleRegister, BootMonitorModule, "BootMonitor", 0);

BootMonitorModule::BootMonitorModule() : report(std::make_shared<BootFailReport>()) {}

namespace {

// The listener that runs, whichever module object started it: it outlives
// the supervision and the module, and the port it binds is the process's, so
// a module loaded again joins it instead of starting a second.
std::mutex gListenerLock;
std::shared_ptr<BootFailReport> gListener;

}  // namespace

BootMonitorModule::~BootMonitorModule() = default;

bool BootMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-BootMonitor", "[%s] tarnis BootMonitor OnInit", __func__);
    // The root is known by now; the constructor ran before it was.
    report->Load();
    return true;
}

void BootMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] load bootMonitor", __func__);
    {
        std::lock_guard<std::mutex> lock(gListenerLock);
        if (gListener != nullptr) {
            report = gListener;
        } else {
            gListener = report;
            std::shared_ptr<BootFailReport> listener = report;
            listenerThread = std::make_unique<std::thread>([listener] {
                listener->NetlinkInit();
                std::lock_guard<std::mutex> lock(gListenerLock);
                if (gListener == listener) gListener.reset();
            });
            listenerThread->detach();
        }
    }

    android::BootMonitorThread().threadLoop();

    ALOGI("[%s] bootMonitor done~", __func__);
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", __func__);
}

}  // namespace tarnis
}  // namespace velmar
