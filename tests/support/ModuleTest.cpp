#include "tests/support/ModuleTest.h"

#include <sys/mman.h>

#include <mutex>
#include <sstream>

#include <android-base/unique_fd.h>
#include <host/Host.h>

#include "framework/ModuleBase.h"
#include "framework/ModuleManager.h"
#include "framework/ModulePrio.h"
#include "framework/TarnisUtil.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/LooperIdle.h"

namespace tarnis_test {

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using velmar::kolto::ModuleManager;
using velmar::kolto::TarnisUtil;

void ModuleTest::SetUp() {
    platform::SetRoot(root_.path());
    clock_.Install();
    ssi_ = ndk::SharedRefBase::make<TarnisSsiImpl>();
    internal_ = ndk::SharedRefBase::make<TarnisInternal>();
    TarnisUtil::SetTarnisSsiAidl(ssi_);
    TarnisUtil::SetTarnisSsiIntl(internal_);
}

void ModuleTest::TearDown() {
    std::vector<std::string> running;
    {
        std::lock_guard<std::recursive_mutex> lock(velmar::kolto::GetModuleListLock());
        for (const auto& [name, entry] : velmar::kolto::GetModuleList()) {
            if (!entry.stopped) running.push_back(name);
        }
    }
    for (const std::string& name : running) velmar::kolto::removeModule(name, false);
    WaitIdle();
    TarnisUtil::SetTarnisSsiAidl(nullptr);
    TarnisUtil::SetTarnisSsiIntl(nullptr);
    platform::SetRoot("/");
}

void ModuleTest::LoadModules() {
    {
        // As in a fresh process: a module an earlier test removed gets a new object.
        std::lock_guard<std::recursive_mutex> lock(velmar::kolto::GetModuleListLock());
        for (auto& [name, entry] : velmar::kolto::GetModuleList()) {
            if (entry.instance != nullptr || entry.createInstance == nullptr) continue;
            entry.instance = entry.createInstance();
            if (entry.instance != nullptr) entry.instance->name = name;
            entry.stopped = true;
        }
    }
    ModuleManager::loadModules();
    WaitIdle();
}

void ModuleTest::WaitIdle() { ASSERT_TRUE(WaitAllLoopersIdle(std::chrono::seconds(10))) << "threads still busy"; }

void ModuleTest::AdvanceAndSettle(int64_t ms) {
    clock_.Advance(ms);
    WaitIdle();
}

void ModuleTest::RemoveModule(const std::string& name, bool quitSafely) {
    velmar::kolto::removeModule(name, quitSafely);
    WaitIdle();
}

std::string ModuleTest::Dump(const std::vector<std::string>& args) {
    // A memory file stands for the client's descriptor: the dump never blocks on it.
    android::base::unique_fd out(memfd_create("dump", MFD_CLOEXEC));
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    ssi_->dump(out.get(), argv.data(), static_cast<uint32_t>(argv.size()));
    return ReadFile("/proc/self/fd/" + std::to_string(out.get()));
}

std::vector<Json::Value> ModuleTest::JournalEvents() {
    std::istringstream lines(ReadFile(Device("/data/misc/tarnis/events.jsonl")));
    std::vector<Json::Value> events;
    for (std::string line; std::getline(lines, line);) {
        Json::Value event;
        EXPECT_TRUE(Json::Reader(Json::Features::strictMode()).parse(line, event)) << "journal line: " << line;
        events.push_back(event);
    }
    return events;
}

std::string ModuleTest::Device(const std::string& path) const { return platform::DevicePath(path); }

}  // namespace tarnis_test
