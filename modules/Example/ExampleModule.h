#pragma once

#include <atomic>
#include <memory>

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "framework/TarnisHandler.h"

namespace velmar {
namespace tarnis {

// The shape of a feature module, in the smallest form that still does what
// the real ones do, in both of its shapes:
//   - handler only: work that never blocks runs on the module's own thread
//     once every module is loaded, repeated once a day with postDelayed (so a
//     test drives it with the injectable clock), and reports through the
//     in-process event service;
//   - handler plus worker: work that blocks (here, waiting for the boot to
//     complete) runs on a ModuleWorker, whose waits end when the module is
//     removed, and hands its result to the handler thread.
// Its dump shows both; removal stops and joins the worker.
class ExampleModule : public kolto::ModuleBase {
public:
    static constexpr long kPeriodMs = 24L * 3600 * 1000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void Tick();
    void OnBootCompleted();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    std::unique_ptr<kolto::ModuleWorker> worker_;
    std::atomic<int> ticks_{0};
    std::atomic<bool> booted_{false};
};

}  // namespace tarnis
}  // namespace velmar
