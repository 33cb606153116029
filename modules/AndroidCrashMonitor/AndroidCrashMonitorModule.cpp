#define LOG_TAG "AndroidCrashMonitor"

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorModule.h"

#include <sys/stat.h>

#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"
#include "utils/Paths.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(AndroidCrashMonitorModuleRegister, AndroidCrashMonitorModule, "AndroidCrashMonitor", 0);

bool AndroidCrashMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-AndroidCrashMonitorModule", "[%s] tarnis AndroidCrashMonitor OnInit",
                        __func__);
    return true;
}

void AndroidCrashMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] begin wait for mtk aee dir ready", __func__);
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    {
        std::lock_guard<std::mutex> guard(lock_);
        worker_ = std::make_unique<kolto::ModuleWorker>("CrashMonitor", handlerThread->getLooper());
        monitor_ = std::make_unique<AndroidCrashMonitorThread>(worker_->stopSignal());
    }
    WaitAeeDirReady();
}

void AndroidCrashMonitorModule::WaitAeeDirReady() {
    struct stat st;
    if (stat(kolto::paths::Get(kolto::paths::kAeeExpDir).c_str(), &st) == 0 || waits_ >= kAeeDirWaits) {
        StartMonitor();
        return;
    }
    handler_->postDelayed(
            [this] {
                ++waits_;
                ALOGI("[%s] wait for aee dir ready", "WaitAeeDirReady");
                WaitAeeDirReady();
            },
            kAeeDirWaitMs);
}

void AndroidCrashMonitorModule::StartMonitor() {
    ALOGI("[%s] load Mtk AndroidCrashMonitor module", "OnAllModulesLoaded");
    kolto::ModuleWorker* worker = worker_.get();
    AndroidCrashMonitorThread* monitor = monitor_.get();
    // threadLoop returns by itself only when the directory cannot be
    // watched; after a stop the module is going away and gets nothing.
    worker->Start([this, worker, monitor](kolto::StopSignal&) {
        monitor->threadLoop();
        worker->PostToModule([this] { MonitorFinished(); });
    });
}

void AndroidCrashMonitorModule::MonitorFinished() {
    ALOGI("[%s] Mtk AndroidCrashMonitor done~", "OnAllModulesLoaded");
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", "OnAllModulesLoaded");
}

void AndroidCrashMonitorModule::dump(int fd, const char**, unsigned int) {
    std::string text = "aee dir waits: " + std::to_string(waits_) + "\n";
    {
        // Not held over the write: a reader that never drains must not stall
        // the handler thread at the lock.
        std::lock_guard<std::mutex> guard(lock_);
        if (worker_ != nullptr) text += worker_->Describe() + "\n";
        if (monitor_ != nullptr) text += "fatal dbs handled: " + std::to_string(monitor_->handled()) + "\n";
    }
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
