#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "utils/CallerBudget.h"

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
    // "dump F2fsTrack run" makes a run now, on the module's thread, and
    // returns when it is done; any dump prints the number of runs.
    void dump(int fd, const char** args, unsigned int argc) override;

    void scheduleTrackTask();

    // Milliseconds from `wallMs` to the next local midnight (at most a day).

private:
    void Track();

    // Set on the module's thread, read by a dump on a binder thread.
    std::mutex handlerLock_;
    std::unique_ptr<TarnisHandler> handler_;
    std::atomic<int> runs_{0};
    // `dump F2fsTrack run` from an ordinary uid: once a minute at most.
    CallerBudget callerRuns_{60000};
};

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
