#pragma once

#include <atomic>
#include <memory>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"

namespace velmar {
namespace tarnis {

// The shape of a feature module, in the smallest form that still does what
// the real ones do: it starts its work on its own thread once every module is
// loaded, repeats it once a day with postDelayed (so a test drives it with
// the injectable clock), reports through the in-process event service, shows
// its state in the dump, and stops cleanly when removed.
class ExampleModule : public kolto::ModuleBase {
public:
    static constexpr long kPeriodMs = 24L * 3600 * 1000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void Tick();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    std::atomic<int> ticks_{0};
};

}  // namespace tarnis
}  // namespace velmar
