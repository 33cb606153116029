#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include <android-base/logging.h>
#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <binder/IServiceManager.h>
#include <host/Host.h>

#include "framework/ModuleManager.h"
#include "framework/TarnisUtil.h"
#include "service/DorvaNativeDaemon.h"
#include "utils/dump/CaptureFile.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tarnis_generated/TarnisVersion.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using velmar::kolto::ModuleManager;
using velmar::kolto::TarnisUtil;

namespace {

void Usage(FILE* out) {
    fprintf(out,
            "usage: tarnisd [--root DIR]\n"
            "       tarnisd --version\n"
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

// A daemon that lives as long as the phone: no client may end it by going
// away, descriptors are as many as the system grants, and the large
// transient buffers of transactions go back to the system when freed instead
// of staying in the heap for good.
void HardenProcess() {
    signal(SIGPIPE, SIG_IGN);
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
#if defined(M_MMAP_THRESHOLD)
    // glibc's threshold rises with each large block freed, until such blocks
    // come from the heap; bionic's allocator maps large blocks by itself and
    // has no such option.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
#if defined(M_ARENA_MAX)
    // glibc gives a thread that finds the arenas busy one of its own, up to
    // eight per core, and an arena keeps what is freed into it. Captures
    // start section workers by the dozen, so one burst of them would leave
    // the idle daemon megabytes heavier for good; the daemon allocates
    // little, and two arenas serve it.
    mallopt(M_ARENA_MAX, 2);
#endif
}

int gStopPipe[2] = {-1, -1};

void OnStopSignal(int sig) {
    const char byte = static_cast<char>(sig);
    ssize_t ignored = write(gStopPipe[1], &byte, 1);
    (void)ignored;
}

// SIGTERM and SIGINT end a host run cleanly: the services are withdrawn (their
// sockets removed, so clients learn at once that nobody serves them) and the
// instance lock is given up. The process then ends without running static
// destructors under the feet of module threads that are still working.
void InstallStopHandler(android::base::unique_fd lock) {
    if (pipe2(gStopPipe, O_CLOEXEC) != 0) {
        PLOG(ERROR) << "tarnisd: no pipe for stop signals; SIGTERM will end the daemon abruptly";
        return;
    }
    std::thread([lock = std::move(lock)]() mutable {
        char sig = 0;
        (void)TEMP_FAILURE_RETRY(read(gStopPipe[0], &sig, 1));
        LOG(INFO) << "tarnisd: " << (sig == SIGINT ? "SIGINT" : "SIGTERM")
                  << " received; withdrawing the services and exiting";
        platform::host::WithdrawServices();
        platform::host::ReleaseInstanceLock("tarnisd", std::move(lock));
        fflush(stdout);
        _exit(0);
    }).detach();
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--version") {
            printf("tarnisd %s (%s)\n", TARNIS_VERSION, TARNIS_REVISION);
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
    std::string why;
    android::base::unique_fd lock = platform::host::AcquireInstanceLock("tarnisd", &why);
    if (!lock.ok()) {
        fprintf(stderr, "tarnisd: %s\n", why.c_str());
        return 1;
    }
    HardenProcess();
    // Init hands a device's daemon its capture socket; a host run makes its
    // own, after taking the lock (so no other daemon's socket is replaced) and
    // before the capture server's module looks for it.
    if (!platform::host::ProvideControlSocket("dorvad", &why)) {
        LOG(ERROR) << "tarnisd: no capture socket: " << why;
    }
    InstallStopHandler(std::move(lock));
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

    // Before the first capture can start: what killed captures left half-written goes.
    android::CaptureFile::RemoveLeftovers();
    android::sp<android::DorvaNativeDaemon> daemon = new android::DorvaNativeDaemon();
    android::status_t err = android::defaultServiceManager()->addService(
        daemon->getInterfaceDescriptor(), daemon, false,
        android::IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    LOG(INFO) << "Velmar DorvaNativeDaemon common Impl System Service is added in ServiceManager...";
    CHECK_EQ(err, android::OK);

    ABinderProcess_startThreadPool();
    ABinderProcess_joinThreadPool();
    // The pool never gives the thread back; if it does, init restarts us.
    return 1;
}
