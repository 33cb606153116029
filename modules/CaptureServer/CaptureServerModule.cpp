#define LOG_TAG "Tarnis-CaptureServerModule"

#include "modules/CaptureServer/CaptureServerModule.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>

#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "modules/CaptureServer/CaptureServerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(CaptureServerModuleRegister, CaptureServerModule, "CaptureServer", 0);

CaptureServerModule::~CaptureServerModule() {
    stopping_.store(true);
    if (stopFd_.ok()) eventfd_write(stopFd_.get(), 1);
    if (server_.joinable()) server_.join();
}

bool CaptureServerModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-CaptureServer", "[%s] tarnis CaptureServer OnInit", __func__);
    return true;
}

void CaptureServerModule::OnAllModulesLoaded() {
    ALOGI("[%s] load CaptureServer", __func__);
    stopFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopFd_.ok()) {
        // Without a way to stop it, the server would make the module impossible to remove.
        ALOGE("[%s] no stop event for the capture server: %s", __func__, strerror(errno));
        kolto::removeModule(name, true);
        return;
    }
    server_ = std::thread([this] { Serve(); });
}

void CaptureServerModule::Serve() {
    pthread_setname_np(pthread_self(), "dorvad");
    {
        android::CaptureServerThread server(stopFd_.get());
        server.threadLoop();
    }
    // Asked to stop: the module is being removed already.
    if (stopping_.load()) return;
    ALOGI("[%s] CaptureServer done~", "OnAllModulesLoaded");
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", "OnAllModulesLoaded");
}

}  // namespace tarnis
}  // namespace velmar
