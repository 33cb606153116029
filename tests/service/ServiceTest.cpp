#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <dorva/DorvaServiceManager.h>
#include <host/Host.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/ModuleBase.h"
#include "framework/ModuleManager.h"
#include "framework/ModuleRegister.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisUtil.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/LogCapture.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/ManagerThread.h"
#include "tests/support/RecordingPeer.h"
#include "tests/support/TempDir.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using namespace velmar::kolto;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;

namespace {

class EchoModule : public ModuleBase {
public:
    void dump(int fd, const char** args, unsigned int argc) override {
        std::string text = "echo";
        for (unsigned int i = 0; i < argc; ++i) text += std::string(" ") + args[i];
        text += "\n";
        if (write(fd, text.data(), text.size()) < 0) return;
    }
};
class RefusingModule : public ModuleBase {
public:
    bool OnInit() override { return false; }
};
TARNIS_MODULE_REGISTER(EchoModuleRegister, EchoModule, "Echo", 0);
TARNIS_MODULE_REGISTER(RefusingModuleRegister, RefusingModule, "Refusing", 0);

std::string Ctl() { return std::string(TARNIS_BUILD_DIR) + "/tarnisctl"; }

using tarnis_test::DrainManagerThread;

// The daemon's two services, served from this process below a fresh root.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        ctl_ = Ctl() + " --root " + root_.path();
        ssi_ = ndk::SharedRefBase::make<TarnisSsiImpl>();
        internal_ = ndk::SharedRefBase::make<TarnisInternal>();
        ASSERT_EQ(AServiceManager_addService(ssi_->asBinder().get(),
                                             (std::string(TarnisSsiImpl::descriptor) + "/default").c_str()),
                  STATUS_OK);
        ASSERT_EQ(AServiceManager_addService(internal_->asBinder().get(),
                                             (std::string(TarnisInternal::descriptor) + "/default").c_str()),
                  STATUS_OK);
        ABinderProcess_startThreadPool();
    }
    void TearDown() override {
        android::ServiceManager::instance().removeService(std::string(TarnisSsiImpl::descriptor) + "/default");
        android::ServiceManager::instance().removeService(std::string(TarnisInternal::descriptor) + "/default");
        TarnisUtil::SetTarnisSsiAidl(nullptr);
        TarnisUtil::SetTarnisSsiIntl(nullptr);
        android::DorvaServiceManager::getInstance().setResultForTesting(0);
        platform::SetRoot("/");
    }

    TempDir root_;
    std::string ctl_;
    std::shared_ptr<TarnisSsiImpl> ssi_;
    std::shared_ptr<TarnisInternal> internal_;
};

}  // namespace

TEST_F(ServiceTest, DumpFromAnotherProcessIsExactToTheByte) {
    ModuleManager::loadModules();
    DrainManagerThread();  // loading
    DrainManagerThread();  // the removal of the module whose OnInit failed
    int status = -1;
    EXPECT_EQ(RunShell(ctl_ + " dump ModuleManager dump", &status),
              "Current Modules:\n-------------------------\nName \t\t Status\n"
              "Echo\t\tRunning\nRefusing\t\tStopped\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(RunShell(ctl_ + " dump", &status),
              "Dumping module Echo: \necho\n\n-------------------------------------\n");
    EXPECT_EQ(RunShell(ctl_ + " dump Echo x", &status),
              "Dumping module Echo: \necho Echo x\n\n-------------------------------------\n");
    EXPECT_EQ(RunShell(ctl_ + " dump ModuleManager", &status),
              "Tarnis ModuleManager:\nload <module name> \t\t Load a module that is not running\n"
              "dump \t\t Get Current Modules Status.\n");
    EXPECT_EQ(RunShell(ctl_ + " dump Nope", &status), "Module Nope not found!!\n");
    EXPECT_EQ(RunShell(ctl_ + " dump Refusing", &status), "Module Refusing is not running\n");
}

TEST_F(ServiceTest, IntentFromTheToolReachesAReceiverWithItsExtras) {
    struct Receiver : BroadcastReceiver {
        mutable std::mutex lock;
        mutable std::condition_variable cond;
        mutable std::vector<Intent> got;
        void onReceive(Intent intent) const override {
            std::lock_guard<std::mutex> guard(lock);
            got.push_back(std::move(intent));
            cond.notify_all();
        }
    } receiver;
    InternalBroadcastManager::registerReceiver(&receiver, IntentFilter({"tarnis.test.TOOL"}));
    int status = -1;
    RunShell(ctl_ +
                 " intent tarnis.test.TOOL "
                 "'{\"extras\":[{\"key\":\"dir\",\"value_type\":2,\"value\":\"/data/x\"},"
                 "{\"key\":\"n\",\"value_type\":6,\"value\":12}]}'",
             &status);
    EXPECT_EQ(status, 0);
    std::unique_lock<std::mutex> guard(receiver.lock);
    ASSERT_TRUE(receiver.cond.wait_for(guard, std::chrono::seconds(10), [&] { return !receiver.got.empty(); }));
    EXPECT_EQ(receiver.got[0].getStringExtra("dir"), "/data/x");
    EXPECT_EQ(receiver.got[0].getExtra<int32_t>("n", 0), 12);
    guard.unlock();
    InternalBroadcastManager::unregisterReceiver(&receiver);
}

TEST_F(ServiceTest, ReportsReachTheJournalAndOnlyAnalyticsReportLibraryFailure) {
    int status = -1;
    RunShell(ctl_ + " event reportEventV2 a b c true", &status);
    EXPECT_EQ(status, 0);
    RunShell(ctl_ + " event reportEventsV2 a '[\"x\",\"y\"]' c false", &status);
    EXPECT_EQ(status, 0);
    RunShell(ctl_ + " event reportSimpleEvent 99 only-text", &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFile(root_.path() + "/data/misc/tarnis/events.jsonl"),
              "{\"call\":\"reportEventV2\",\"args\":[\"a\",\"b\",\"c\",true]}\n"
              "{\"call\":\"reportEventsV2\",\"args\":[\"a\",[\"x\",\"y\"],\"c\",false]}\n"
              "{\"call\":\"reportSensorException\",\"args\":[\"only-text\"]}\n");
    RunShell(ctl_ + " event reportEventsV2 a not-a-list c false 2>/dev/null", &status);
    EXPECT_EQ(status, 2);

    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    EXPECT_TRUE(ssi_->reportEventV2("a", "b", "c", false).isOk());
    EXPECT_TRUE(ssi_->reportSimpleEvent(0, "x").isOk());
    EXPECT_EQ(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).getStatus(), STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(ssi_->reportTrelvoEvents("app", "pkg", {"{}"}, 0).getStatus(), STATUS_UNKNOWN_ERROR);
    // A client in another process sees the failure and says so.
    std::string err = RunShell(ctl_ + " event reportTrelvoEvent app pkg '{}' 0 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("reportTrelvoEvent: "), std::string::npos) << err;
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).isOk());
}

// tarnisctl starts without the C++ runtime's shared library (jsoncpp would
// bring it back) and hands the JSON commands to tarnisctl-json beside it; one
// copied away alone says what it is missing instead of failing obscurely.
TEST_F(ServiceTest, TheToolStartsLeanAndHandsJsonCommandsToItsSibling) {
    int status = -1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const std::string needed = RunShell("readelf -d " + Ctl() + " | grep NEEDED", &status);
    ASSERT_EQ(status, 0) << needed;
    EXPECT_EQ(needed.find("libjsoncpp"), std::string::npos) << needed;
#endif
    // The transport and the layout, none of the daemon's own code.
    const std::string core = RunShell("nm -C " + Ctl() + " | grep -cE 'ModuleManager|CaptureFile::|LogManager'", &status);
    EXPECT_EQ(core, "0\n");
    TempDir lone;
    ASSERT_EQ(system(("cp " + Ctl() + " " + lone.path() + "/").c_str()), 0);
    const std::string err =
        RunShell(lone.path() + "/tarnisctl --root " + root_.path() + " event reportEventV2 a b c true 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "tarnisctl: event is run by " + lone.path() +
                       "/tarnisctl-json, which could not be started: No such file or directory\n");
}

TEST_F(ServiceTest, BroadcastsGoToTheVendorPeerOnlyWhenAskedAndNeverBack) {
    using Peer = tarnis_test::RecordingPeer;
    auto peer = ndk::SharedRefBase::make<Peer>();
    const std::string peerName = std::string(Peer::descriptor) + "/default";
    platform::LogCapture capture;
    // This end holds the system internal service, so its peer is the vendor one;
    // while the vendor peer is absent only the local half happens.
    TarnisUtil::SetTarnisSsiIntl(internal_);
    InternalBroadcastManager::sendBroadcast(Intent("tarnis.test.PEER"), true);
    EXPECT_TRUE(capture.HasLine("[sendBroadcast] Failed to get Tarnis Vendor instance!",
                                 "Tarnis-InternalBroadcastManager", ANDROID_LOG_WARN));

    ASSERT_EQ(AServiceManager_addService(peer->asBinder().get(), peerName.c_str()), STATUS_OK);
    Intent intent("tarnis.test.PEER");
    intent.putExtra("n", 5);
    InternalBroadcastManager::sendBroadcast(intent, true);
    InternalBroadcastManager::sendBroadcast(intent, false);
    // A message from the peer is delivered here but not returned to it.
    InternalBroadcastManager::onTarnisIntlMessageReceived("tarnis.test.PEER", "{\"extras\":[]}");
    {
        std::lock_guard<std::mutex> guard(peer->lock);
        ASSERT_EQ(peer->got.size(), 1u);
        EXPECT_EQ(peer->got[0].first, "tarnis.test.PEER");
        EXPECT_EQ(peer->got[0].second, "{\"extras\":[{\"key\":\"n\",\"value\":5,\"value_type\":6}]}\n");
    }
    android::ServiceManager::instance().removeService(peerName);
}
