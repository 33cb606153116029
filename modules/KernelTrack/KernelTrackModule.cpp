#include "modules/KernelTrack/KernelTrackModule.h"

#include <time.h>

#include <string>

#include <android-base/properties.h>
#include <log/log.h>

#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/KernelTrack/KernelStatsTrack.h"
#include "utils/Clock.h"

#define LOG_TAG "Tarnis-KernelTrackModule"

namespace velmar {
namespace kolto {
namespace KernelTrack {

TARNIS_MODULE_REGISTER(KernelTrackModuleRegister, KernelTrackModule, "KernelTrack", 0);

bool KernelTrackModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-KernelTrack", "[%s] tarnis KernelTrack OnInit", __func__);
    return true;
}

int64_t KernelTrackModule::DelayToMidnightMs(int64_t wallMs) {
    const time_t now = static_cast<time_t>(wallMs / 1000);
    struct tm local {};
    localtime_r(&now, &local);
    local.tm_hour = 24;
    local.tm_min = 0;
    local.tm_sec = 0;
    local.tm_isdst = -1;
    const time_t midnight = mktime(&local);
    const int64_t delay = static_cast<int64_t>(midnight) * 1000 - wallMs;
    // A clock set oddly (or a conversion that failed) must not stall the
    // schedule nor run it back to back.
    if (midnight == static_cast<time_t>(-1) || delay <= 0 || delay > kDayMs) return kDayMs;
    return delay;
}

void KernelTrackModule::OnAllModulesLoaded() {
    ALOGI("[%s] load KernelTrack", __func__);
    if (android::base::GetProperty("persist.sys.stability.kernel_track_enable", "") != "true") {
        ALOGE("[%s] KernelTrack enable error", __func__);
        return;
    }
    ALOGE("[%s] KernelTrack enable", __func__);
    handler_ = std::make_unique<TarnisHandler>(handlerThread->getLooper(), nullptr);
    const int64_t delay = DelayToMidnightMs(GetClock().WallNowMs());
    ALOGI("[%s] DayMidnight: %llu h", __func__, static_cast<unsigned long long>(delay / 3600000));
    handler_->postDelayed([this] { scheduleTrackTask(); }, static_cast<long>(delay));
    ALOGI("[%s] KernelTrack done~", __func__);
}

void KernelTrackModule::scheduleTrackTask() {
    ALOGI("[%s] scheduleTrackTask", __func__);
    KernelStatsTrack::kernelStatsReport();
    handler_->postDelayed([this] { scheduleTrackTask(); }, kDayMs);
}

void KernelTrackModule::dump(int, const char**, unsigned int) {
    ALOGI("[%s] dump", __func__);
    ALOGI("[%s] test kernel stats", __func__);
    KernelStatsTrack::kernelStatsReport();
}

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
