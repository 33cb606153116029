#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "modules/RescueSpace/RescueSpaceThread.h"

namespace velmar {
namespace tarnis {

// Runs the rescue partition's cleaning cycle on the module's own thread.
// The pause between cycles is kept as a chain of one-minute delayed steps on
// the module's handler instead of a blocking sleep, so the thread stays free
// for its looper: the module can be removed at any time, and the timer
// property is still read again before every minute as the pause requires.
class RescueSpaceModule : public kolto::ModuleBase {
public:
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void Cycle();
    void PauseStep();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    std::unique_ptr<RescueSpaceThread> worker_;
    size_t sleeps_ = 0;
    size_t timer_ = 0;
    std::atomic<int> cycles_{0};
};

}  // namespace tarnis
}  // namespace velmar
