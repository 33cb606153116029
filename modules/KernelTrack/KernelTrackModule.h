#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "utils/CallerBudget.h"

namespace velmar {
namespace kolto {
namespace KernelTrack {

// Reports the kernel's scheduling, memory, locking and binder statistics once
// a day, from the first local midnight after load. Each run is a delayed
// message on the module's handler, so the thread is idle between runs and the
// module can be removed at any time.
class KernelTrackModule : public ModuleBase {
public:
    static constexpr int64_t kDayMs = 86400000;
    // A dump from a caller other than root or system reports at most this often.
    static constexpr int64_t kCallerReportIntervalMs = 60000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void scheduleTrackTask();

    std::unique_ptr<TarnisHandler> handler_;
    CallerBudget callerReports_{kCallerReportIntervalMs};
};

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
