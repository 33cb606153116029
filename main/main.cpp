#include <unistd.h>

#include <memory>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/ModuleManager.h"
#include "framework/TarnisUtil.h"
#include "platform/Log.h"
#include "platform/binder/NdkBinder.h"
#include "platform/Root.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using velmar::kolto::ModuleManager;
using velmar::kolto::TarnisUtil;

namespace {

void Usage(FILE* out) {
    fprintf(out,
            "usage: tarnisd [--root DIR]\n"
            "Runs the diagnostics daemon in the foreground. Device paths resolve below DIR\n"
            "(default: $TARNIS_ROOT, else /).\n");
}

// On a sandboxed host run, children must see the same root, and captures run
// tools by name: the sandbox's bin/ (our getprop, the host's tools) comes
// first. Done before any work is posted, since setenv is not thread-safe.
void PrepareHostEnvironment() {
    const std::string root = platform::GetRoot();
    if (root == "/") return;
    setenv("TARNIS_ROOT", root.c_str(), 1);
    const char* path = getenv("PATH");
    const std::string sandboxBin = platform::DevicePath("/bin");
    setenv("PATH", (sandboxBin + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--root" && i + 1 < argc) {
            platform::SetRoot(argv[++i]);
        } else if (arg.compare(0, 7, "--root=") == 0) {
            platform::SetRoot(arg.substr(7));
        } else {
            fprintf(stderr, "tarnisd: unknown argument '%s'\n", arg.c_str());
            Usage(stderr);
            return 2;
        }
    }
    PrepareHostEnvironment();
    LOG(INFO) << "Velmar Tarnis-System Service is starting...";
    // Module loading runs on the ModuleManager thread while the services come up.
    ModuleManager::loadModules();

    std::shared_ptr<TarnisSsiImpl> ssi = ndk::SharedRefBase::make<TarnisSsiImpl>();
    const std::string ssiInstance = std::string(TarnisSsiImpl::descriptor) + "/default";
    binder_status_t status = AServiceManager_addService(ssi->asBinder().get(), ssiInstance.c_str());
    LOG(INFO) << "Velmar Tarnis-System Service is added in ServiceManager...";
    CHECK_EQ(status, STATUS_OK);

    std::shared_ptr<TarnisInternal> internal = ndk::SharedRefBase::make<TarnisInternal>();
    const std::string internalInstance = std::string(TarnisInternal::descriptor) + "/default";
    status = AServiceManager_addService(internal->asBinder().get(), internalInstance.c_str());
    LOG(INFO) << "Velmar Tarnis-System Internal Service is added in ServiceManager...";
    CHECK_EQ(status, STATUS_OK);

    TarnisUtil::SetTarnisSsiAidl(ssi);
    TarnisUtil::SetTarnisSsiIntl(internal);

    ABinderProcess_startThreadPool();
    ABinderProcess_joinThreadPool();
    // The pool never gives the thread back; if it does, init restarts us.
    return 1;
}
