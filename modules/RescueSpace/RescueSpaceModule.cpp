#define LOG_TAG "Tarnis-RescueSpaceModule"

#include "modules/RescueSpace/RescueSpaceModule.h"

#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(RescueSpaceModuleRegister, RescueSpaceModule, "RescueSpace", 0);

bool RescueSpaceModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-RescueSpace", "[%s] tarnis RescueSpace OnInit", __func__);
    return true;
}

void RescueSpaceModule::OnAllModulesLoaded() {
    ALOGI("[%s] load RescueSpace", __func__);
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    worker_ = std::make_unique<RescueSpaceThread>();
    worker_->Start();
    Cycle();
}

void RescueSpaceModule::Cycle() {
    worker_->RunCycle();
    ++cycles_;
    sleeps_ = 0;
    timer_ = getTimerValue();
    handler_->postDelayed([this] { PauseStep(); }, RescueSpaceThread::kSleepMs);
}

void RescueSpaceModule::PauseStep() {
    // One minute slept. A timer of 0 still costs that minute, so the cycle
    // never runs back to back.
    if (++sleeps_ >= timer_) {
        Cycle();
        return;
    }
    timer_ = getTimerValue();
    handler_->postDelayed([this] { PauseStep(); }, RescueSpaceThread::kSleepMs);
}

void RescueSpaceModule::dump(int fd, const char**, unsigned int) {
    android::base::WriteStringToFd("cycles: " + std::to_string(cycles_.load()) + "\n", fd);
}

}  // namespace tarnis
}  // namespace velmar
