#define LOG_TAG "Tarnis-KernelTrackModule"

#include "modules/KernelTrack/KernelTrackModule.h"

#include <time.h>

#include <string>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android/binder_ibinder.h>
#include <log/log.h>

#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/KernelTrack/KernelStatsTrack.h"
#include "utils/Clock.h"
#include "utils/TimeUtil.h"

namespace velmar {
namespace kolto {
namespace KernelTrack {

TARNIS_MODULE_REGISTER(KernelTrackModuleRegister, KernelTrackModule, "KernelTrack", 0);

bool KernelTrackModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-KernelTrack", "[%s] tarnis KernelTrack OnInit", __func__);
    return true;
}

void KernelTrackModule::OnAllModulesLoaded() {
    ALOGI("[%s] load KernelTrack", __func__);
    if (android::base::GetProperty("persist.sys.stability.kernel_track_enable", "") != "true") {
        ALOGE("[%s] KernelTrack enable error", __func__);
        return;
    }
    ALOGE("[%s] KernelTrack enable", __func__);
    handler_ = std::make_unique<TarnisHandler>(handlerThread->getLooper(), nullptr);
    const int64_t delay = TimeUtil::DelayToNextMidnightMs(GetClock().WallNowMs());
    ALOGI("[%s] DayMidnight: %llu h", __func__, static_cast<unsigned long long>(delay / 3600000));
    handler_->postDelayed([this] { scheduleTrackTask(); }, static_cast<long>(delay));
    ALOGI("[%s] KernelTrack done~", __func__);
}

void KernelTrackModule::scheduleTrackTask() {
    ALOGI("[%s] scheduleTrackTask", __func__);
    KernelStatsTrack::kernelStatsReport();
    handler_->postDelayed([this] { scheduleTrackTask(); }, kDayMs);
}

// Every local process may dump, and a plain `dump` reaches every module: an
// ordinary caller's dump must neither wipe the day's counters before the
// daily report (root and system may, as the platform lets them) nor send an
// analytics event each time, so it reports at most once a minute and resets
// nothing.
void KernelTrackModule::dump(int fd, const char**, unsigned int) {
    const uid_t caller = AIBinder_getCallingUid();
    const bool system = CallerBudget::IsPrivileged(caller);
    if (!callerReports_.Allow(caller)) {
        android::base::WriteStringToFd("kernel stats: reported less than a minute ago; not again yet\n", fd);
        return;
    }
    ALOGI("[%s] dump", __func__);
    ALOGI("[%s] test kernel stats", __func__);
    KernelStatsTrack::kernelStatsReport(system);
    if (!system) {
        android::base::WriteStringToFd("kernel stats: reported; counters kept (uid " + std::to_string(caller) +
                                           " may not reset them)\n",
                                       fd);
    }
}

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
