#pragma once

#include <memory>

#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "modules/BootLogDumper/BootLogDumper.h"

namespace velmar {
namespace tarnis {

// Archives the logs of this boot once it has completed, then removes itself.
// Until boot completion the module looks at the property through delayed
// messages on its handler, so its thread is never blocked and the module can
// be removed while it waits. The looks come once a second at first and then
// ever more rarely, down to one in ten seconds: a sandbox or a device that
// never completes its boot does not keep the daemon busy.
class BootLogDumperModule : public kolto::ModuleBase {
public:
    static constexpr long kBootPollMs = 1000;
    static constexpr long kBootPollLongestMs = 10000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;

private:
    void DumpWhenBootCompleted();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    BootLogDumper dumper_;
    long pollMs_ = kBootPollMs;
};

}  // namespace tarnis
}  // namespace velmar
