#define LOG_TAG "ExampleModule"

#include "modules/Example/ExampleModule.h"

#include <string>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisUtil.h"
#include "utils/PropertyWait.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(ExampleModuleRegister, ExampleModule, "Example", 0);

bool ExampleModule::OnInit() {
    // Runs on the manager thread: decide whether the module is wanted, and
    // make what the dump reads, which may run on any thread from now on.
    if (!android::base::GetBoolProperty("persist.tarnis.example.enable", true)) return false;
    worker_ = std::make_unique<kolto::ModuleWorker>("ExampleWorker", nullptr);
    return true;
}

void ExampleModule::OnAllModulesLoaded() {
    // Now on the module's own thread, which the handler is bound to.
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    handler_->postDelayed([this] { Tick(); }, kPeriodMs);
    worker_->Start(handlerThread->getLooper(), [this](kolto::StopSignal& stop) {
        // Blocks for as long as the boot takes; the module's removal ends it.
        if (kolto::WaitForPropertyUnlessStopped("sys.boot_completed", "1", stop.flag())) {
            worker_->PostToModule([this] { OnBootCompleted(); });
        }
    });
}

void ExampleModule::OnBootCompleted() {
    booted_ = true;
    ALOGI("[%s] boot completed", "OnBootCompleted");
}

void ExampleModule::Tick() {
    const int tick = ++ticks_;
    ALOGI("[%s] tick %d", "Tick", tick);
    if (auto ssi = kolto::TarnisUtil::GetTarnisSsiAidl()) {
        ssi->reportEventV2("example", "tick", std::to_string(tick), false);
    }
    handler_->postDelayed([this] { Tick(); }, kPeriodMs);
}

void ExampleModule::dump(int fd, const char**, unsigned int) {
    android::base::WriteStringToFd("ticks: " + std::to_string(ticks_.load()) + "\n" + worker_->Describe() +
                                           "\nboot completed: " + (booted_ ? "yes" : "no") + "\n",
                                   fd);
}

}  // namespace tarnis
}  // namespace velmar
