#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"

namespace velmar {
namespace kolto {
namespace F2fsTrack {

// Sends the storage-health event once a day at local midnight. Each run is a
// delayed message on the module's own handler, so the thread is idle between
// runs and the module can be removed at any time.
class F2fsTrackModule : public ModuleBase {
public:
    static constexpr int64_t kDayMs = 86400000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

    void scheduleTrackTask();

    // Milliseconds from `wallMs` to the next local midnight (at most a day).
    static int64_t DelayToMidnightMs(int64_t wallMs);

private:
    std::unique_ptr<TarnisHandler> handler_;
    std::atomic<int> runs_{0};
};

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
