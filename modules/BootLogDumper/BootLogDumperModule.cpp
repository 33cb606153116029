#define LOG_TAG "Tarnis-BootLogDumperModule"

#include "modules/BootLogDumper/BootLogDumperModule.h"

#include <algorithm>
#include <string>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(BootLogDumperModuleRegister, BootLogDumperModule, "BootLogDumper", 0);

namespace {
constexpr char kWorkerName[] = "BootLogDumper";
}  // namespace

bool BootLogDumperModule::OnInit() {
    ALOGI("[%s] tarnis BootLogDumper OnInit", __func__);
    return true;
}

void BootLogDumperModule::OnAllModulesLoaded() {
    ALOGI("[%s] load Mtk BootLopDumper module", __func__);
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    {
        std::lock_guard<std::mutex> guard(lock_);
        worker_ = std::make_unique<kolto::ModuleWorker>(kWorkerName, handlerThread->getLooper());
        dumper_ = std::make_unique<BootLogDumper>(worker_->stopSignal());
    }
    DumpWhenBootCompleted();
}

void BootLogDumperModule::DumpWhenBootCompleted() {
    if (android::base::GetProperty("sys.boot_completed", "") != "1") {
        handler_->postDelayed([this] { DumpWhenBootCompleted(); }, pollMs_);
        lookMs_.store(pollMs_);
        pollMs_ = std::min(pollMs_ * 2, kBootPollLongestMs);
        return;
    }
    lookMs_.store(0);
    const bool started = worker_->Start([this](kolto::StopSignal&) {
        dumper_->dump_boot_logs();
        worker_->PostToModule([this] { DumpFinished(); });
    });
    // Without a thread there is no archive to make: the module goes.
    if (!started) DumpFinished();
}

void BootLogDumperModule::DumpFinished() {
    static constexpr char kFunc[] = "OnAllModulesLoaded";
    ALOGI("[%s] Mtk BootLopDumper done~", kFunc);
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", kFunc);
}

void BootLogDumperModule::dump(int fd, const char**, unsigned int) {
    std::lock_guard<std::mutex> guard(lock_);
    if (worker_ == nullptr) {
        android::base::WriteStringToFd(std::string(kWorkerName) + ": not started\n", fd);
        return;
    }
    const long lookMs = lookMs_.load();
    std::string text = worker_->Describe() + "\n";
    if (lookMs > 0) {
        text += "boot completed: not yet, next look " + std::to_string(lookMs) + " ms after the last\n";
    } else {
        text += lookMs == 0 ? "boot completed: yes\n" : "boot completed: not looked at yet\n";
    }
    text += dumper_->Progress();
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
