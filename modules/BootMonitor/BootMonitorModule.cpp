#define LOG_TAG "Tarnis-BootMonitorModule"

#include "modules/BootMonitor/BootMonitorModule.h"

#include <log/log.h>

#include <memory>
#include <mutex>
#include <string>

#include <android-base/file.h>

#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandlerThread.h"

namespace velmar {
namespace tarnis {

TARNIS_MODULE_REGISTER(BootMonitorModuleRegister, BootMonitorModule, "BootMonitor", 0);

BootMonitorModule::BootMonitorModule() : report(std::make_shared<BootFailReport>()) {}

namespace {

constexpr char kSupervisionName[] = "BootMonitor";
constexpr char kListenerName[] = "BootFailNetlink";

// The listener that runs, whichever module object started it: it outlives
// the supervision and the module, and the port it binds is the process's, so
// a module loaded again joins it instead of starting a second. Nothing stops
// it before the process ends, and nothing joins it then: its last message
// may be taking a capture.
struct Listener {
    std::mutex lock;
    std::shared_ptr<BootFailReport> report;
    std::unique_ptr<kolto::ModuleWorker> worker;
};

Listener& TheListener() {
    static Listener* const listener = new Listener;
    return *listener;
}

}  // namespace

BootMonitorModule::~BootMonitorModule() = default;

bool BootMonitorModule::OnInit() {
    __android_log_print(ANDROID_LOG_INFO, "Tarnis-BootMonitor", "[%s] tarnis BootMonitor OnInit", __func__);
    // The root is known by now; the constructor ran before it was.
    report->Load();
    return true;
}

void BootMonitorModule::OnAllModulesLoaded() {
    ALOGI("[%s] load bootMonitor", __func__);
    {
        Listener& listener = TheListener();
        std::lock_guard<std::mutex> lock(listener.lock);
        if (listener.worker != nullptr && listener.worker->state() == kolto::ModuleWorker::State::kRunning) {
            report = listener.report;
        } else {
            // One that ended (its socket closed) is joined and replaced.
            listener.report = report;
            listener.worker = std::make_unique<kolto::ModuleWorker>(kListenerName, nullptr);
            listener.worker->Start([heard = report](kolto::StopSignal& stop) { heard->NetlinkInit(stop); });
        }
    }

    kolto::ModuleWorker* worker = nullptr;
    android::BootMonitorThread* monitor = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        worker_ = std::make_unique<kolto::ModuleWorker>(kSupervisionName, handlerThread->getLooper());
        monitor_ = std::make_unique<android::BootMonitorThread>(worker_->stopSignal());
        worker = worker_.get();
        monitor = monitor_.get();
    }
    const bool started = worker->Start([this, worker, monitor](kolto::StopSignal&) {
        monitor->threadLoop();
        worker->PostToModule([this] { SupervisionEnded(); });
    });
    // Without a thread there is nothing to supervise with: the module goes.
    if (!started) SupervisionEnded();
}

void BootMonitorModule::SupervisionEnded() {
    static constexpr char kFunc[] = "OnAllModulesLoaded";
    ALOGI("[%s] bootMonitor done~", kFunc);
    kolto::removeModule(name, true);
    ALOGI("[%s] quited!!", kFunc);
}

void BootMonitorModule::dump(int fd, const char**, unsigned int) {
    std::string text;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (worker_ == nullptr) {
            text = std::string(kSupervisionName) + ": not started\n";
        } else {
            text = worker_->Describe() + "\n" + monitor_->Describe();
        }
    }
    Listener& listener = TheListener();
    {
        std::lock_guard<std::mutex> lock(listener.lock);
        text += listener.worker != nullptr ? listener.worker->Describe() : std::string(kListenerName) + ": not started";
        text += "\n";
    }
    android::base::WriteStringToFd(text, fd);
}

}  // namespace tarnis
}  // namespace velmar
