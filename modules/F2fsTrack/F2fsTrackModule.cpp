#define LOG_TAG "Tarnis-F2fsTrackModule"

#include "modules/F2fsTrack/F2fsTrackModule.h"

#include <time.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/binder_ibinder.h>
#include <log/log.h>

#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/F2fsTrack/F2fsTrack.h"
#include "utils/Clock.h"
#include "utils/TimeUtil.h"

namespace velmar {
namespace kolto {
namespace F2fsTrack {

TARNIS_MODULE_REGISTER(F2fsTrackModuleRegister, F2fsTrackModule, "F2fsTrack", 0);

bool F2fsTrackModule::OnInit() {
    const bool enabled = android::base::GetBoolProperty("persist.sys.stability.f2fsTrackEnable", false);
    if (enabled) {
        __android_log_print(ANDROID_LOG_INFO, "Tarnis-F2fsTrack", "[%s] tarnis F2fsTrack OnInit", __func__);
    } else {
        __android_log_print(ANDROID_LOG_INFO, "Tarnis-F2fsTrack", "[%s] F2fsTrack not enabled", __func__);
    }
    return enabled;
}

void F2fsTrackModule::OnAllModulesLoaded() {
    ALOGI("[%s] load F2fsTrack", __func__);
    std::lock_guard<std::mutex> guard(handlerLock_);
    handler_ = std::make_unique<TarnisHandler>(handlerThread->getLooper(), nullptr);
    const int64_t delay = TimeUtil::DelayToNextMidnightMs(GetClock().WallNowMs());
    ALOGI("[%s] DayMidnight: %u h", __func__, static_cast<unsigned>(delay / 3600000));
    handler_->postDelayed([this] { scheduleTrackTask(); }, static_cast<long>(delay));
    ALOGI("[%s] F2fsTrack done~", __func__);
}

void F2fsTrackModule::Track() {
    doTrack();
    ++runs_;
}

void F2fsTrackModule::scheduleTrackTask() {
    Track();
    std::lock_guard<std::mutex> guard(handlerLock_);
    // No catch-up: a day the device slept through is simply not reported.
    handler_->postDelayed([this] { scheduleTrackTask(); }, kDayMs);
}

void F2fsTrackModule::dump(int fd, const char** args, unsigned int argc) {
    if (argc >= 2 && args[1] != nullptr && strcmp(args[1], "run") == 0) {
        // Each run sends analytics events: any process may ask, only the
        // platform's own callers as often as they like.
        if (!callerRuns_.Allow(AIBinder_getCallingUid())) {
            android::base::WriteStringToFd("run: ran less than a minute ago for an ordinary caller; not again yet\n",
                                           fd);
            android::base::WriteStringToFd("runs: " + std::to_string(runs_.load()) + "\n", fd);
            return;
        }
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> finished = done->get_future();
        {
            std::lock_guard<std::mutex> guard(handlerLock_);
            if (handler_ == nullptr) {
                android::base::WriteStringToFd("run: not ready\n", fd);
                return;
            }
            handler_->post([this, done] {
                Track();
                done->set_value();
            });
        }
        // A real wait on the caller's thread: the run itself is short.
        const bool ran = finished.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
        android::base::WriteStringToFd(ran ? "run: done\n" : "run: still running\n", fd);
    }
    android::base::WriteStringToFd("runs: " + std::to_string(runs_.load()) + "\n", fd);
}

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
