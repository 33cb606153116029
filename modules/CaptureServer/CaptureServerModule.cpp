#define LOG_TAG "Tarnis-CaptureServerModule"

#include "modules/CaptureServer/CaptureServerModule.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <android-base/file.h>
#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(CaptureServerModuleRegister, CaptureServerModule, "CaptureServer", 0);

bool CaptureServerModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-CaptureServer", "[%s] tarnis CaptureServer OnInit", __func__);
    return true;
}

void CaptureServerModule::OnAllModulesLoaded() {
    ALOGI("[%s] load CaptureServer", __func__);
    if (worker_.stopSignal().fd() < 0) {
        // Without a way to stop it, the server would make the module impossible to remove.
        ALOGE("[%s] no stop event for the capture server: %s", __func__, strerror(errno));
        kolto::removeModule(name, true);
        return;
    }
    if (!worker_.Start([this](kolto::StopSignal& stop) { Serve(stop); })) kolto::removeModule(name, true);
}

void CaptureServerModule::Serve(kolto::StopSignal& stop) {
    {
        android::CaptureServerThread server(stop, tally_);
        server.threadLoop();
    }
    // Asked to stop: the module is being removed already.
    if (stop.Requested()) return;
    ALOGI("[%s] CaptureServer done~", "OnAllModulesLoaded");
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", "OnAllModulesLoaded");
}

void CaptureServerModule::dump(int fd, const char**, unsigned int) {
    std::string text = worker_.Describe() + "\n";
    text += "requests: " + std::to_string(tally_.served.load()) + " served, " + std::to_string(tally_.refused.load()) +
            " refused, " + std::to_string(tally_.dropped.load()) + " dropped\n";
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
