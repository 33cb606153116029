#pragma once

#include <cstdint>
#include <memory>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"

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

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

    // Milliseconds from `wallMs` to the next local midnight (at most a day).

private:
    void scheduleTrackTask();

    std::unique_ptr<TarnisHandler> handler_;
};

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
