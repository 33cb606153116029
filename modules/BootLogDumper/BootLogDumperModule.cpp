#define LOG_TAG "Tarnis-BootLogDumperModule"

#include "modules/BootLogDumper/BootLogDumperModule.h"

#include <algorithm>
#include <string>

#include <android-base/properties.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(BootLogDumperModuleRegister, BootLogDumperModule, "BootLogDumper", 0);

bool BootLogDumperModule::OnInit() {
    ALOGI("[%s] tarnis BootLogDumper OnInit", __func__);
    return true;
}

void BootLogDumperModule::OnAllModulesLoaded() {
    ALOGI("[%s] load Mtk BootLopDumper module", __func__);
    handler_ = std::make_unique<kolto::TarnisHandler>(handlerThread->getLooper(), nullptr);
    DumpWhenBootCompleted();
}

void BootLogDumperModule::DumpWhenBootCompleted() {
    static constexpr char kFunc[] = "OnAllModulesLoaded";
    if (android::base::GetProperty("sys.boot_completed", "") != "1") {
        handler_->postDelayed([this] { DumpWhenBootCompleted(); }, pollMs_);
        pollMs_ = std::min(pollMs_ * 2, kBootPollLongestMs);
        return;
    }
    dumper_.dump_boot_logs();
    ALOGI("[%s] Mtk BootLopDumper done~", kFunc);
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", kFunc);
}

}  // namespace tarnis
}  // namespace velmar
