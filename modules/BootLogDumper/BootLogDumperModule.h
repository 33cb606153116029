#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "framework/TarnisHandler.h"
#include "modules/BootLogDumper/BootLogDumper.h"

namespace velmar {
namespace tarnis {

// Archives the logs of this boot once it has completed, then removes itself.
// Until boot completion the module looks at the property through delayed
// messages on its handler, so its thread is never blocked and the module can
// be removed while it waits. The looks come once a second at first and then
// ever more rarely, down to one in ten seconds: a sandbox or a device that
// never completes its boot does not keep the daemon busy. The archive is made
// on the module's worker: the tools it runs take their time.
class BootLogDumperModule : public kolto::ModuleBase {
public:
    static constexpr long kBootPollMs = 1000;
    static constexpr long kBootPollLongestMs = 10000;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void DumpWhenBootCompleted();
    void DumpFinished();

    std::unique_ptr<kolto::TarnisHandler> handler_;
    // Made on the module's thread, read by the dump.
    std::mutex lock_;
    // Declared before the worker, so that the worker is joined before the
    // dumper it runs goes.
    std::unique_ptr<BootLogDumper> dumper_;
    std::unique_ptr<kolto::ModuleWorker> worker_;
    long pollMs_ = kBootPollMs;
    // The delay of the look pending; 0 once the boot was seen completed, -1
    // before the first look.
    std::atomic<long> lookMs_{-1};
};

}  // namespace tarnis
}  // namespace velmar
