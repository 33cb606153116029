#include <string>

#include <gtest/gtest.h>

#include <dorva/DorvaServiceManager.h>
#include <host/Host.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/TarnisUtil.h"
#include "platform/LogCapture.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "service/TarnisInternal.h"
#include "service/TarnisSsiImpl.h"
#include "tests/support/FwDaemon.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"
#include "tests/support/RecordingPeer.h"
#include "tests/support/TempDir.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using aidl::velmar::system::tarnis::common::TarnisSsiImpl;
using namespace velmar::kolto;
using tarnis_test::BuiltTool;
using tarnis_test::RunShell;
using tarnis_test::TempDir;

namespace {

const std::string kSsiName = std::string(TarnisSsiImpl::descriptor) + "/default";
const std::string kInternalName = std::string(TarnisInternal::descriptor) + "/default";

// The daemon's two services, served from this process below a fresh root,
// and called by tarnisctl from another.
class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        ASSERT_EQ(AServiceManager_addService(ssi_->asBinder().get(), kSsiName.c_str()), STATUS_OK);
        ASSERT_EQ(AServiceManager_addService(internal_->asBinder().get(), kInternalName.c_str()), STATUS_OK);
        ABinderProcess_startThreadPool();
    }
    void TearDown() override {
        android::ServiceManager::instance().removeService(kSsiName);
        android::ServiceManager::instance().removeService(kInternalName);
        TarnisUtil::SetTarnisSsiIntl(nullptr);
        android::DorvaServiceManager::getInstance().setResultForTesting(0);
        platform::SetRoot("/");
    }
    // tarnisctl with `args`, its standard output alone.
    std::string Ctl(const std::string& args, int* status = nullptr) {
        return RunShell(BuiltTool("tarnisctl") + " --root " + root_.path() + " " + args, status);
    }

    TempDir root_;
    std::shared_ptr<TarnisSsiImpl> ssi_ = ndk::SharedRefBase::make<TarnisSsiImpl>();
    std::shared_ptr<TarnisInternal> internal_ = ndk::SharedRefBase::make<TarnisInternal>();
};

}  // namespace

TEST_F(ServiceTest, IntentFromTheToolReachesAReceiverWithItsExtras) {
    tarnis_test::InternalReceiver receiver("tarnis.test.TOOL");
    int status = -1;
    Ctl("intent tarnis.test.TOOL '{\"extras\":[{\"key\":\"dir\",\"value_type\":2,\"value\":\"/data/x\"},"
        "{\"key\":\"n\",\"value_type\":6,\"value\":12}]}'",
        &status);
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(receiver.Wait(1));
    EXPECT_EQ(receiver.Received()[0].getStringExtra("dir"), "/data/x");
    EXPECT_EQ(receiver.Received()[0].getExtra<int32_t>("n", 0), 12);
}

// What a broken or hostile peer can send through the internal service: a
// document deep enough to make the JSON reader give up, and an action that
// would forge a second log line. The daemon answers OK, logs one bounded,
// printable line and still delivers the action as it came.
TEST_F(ServiceTest, HostileMessageFromThePeerIsLoggedPrintablyAndStillDelivered) {
    const std::string action = "tarnis.test.HOSTILE\n11-23 00:00:00.000 1 1 E Tarnis: forged\xff";
    tarnis_test::InternalReceiver receiver(action);
    platform::LogCapture capture;
    EXPECT_TRUE(internal_->transferMessage(action, std::string(1001, '[') + std::string(1001, ']')).isOk());
    ASSERT_TRUE(receiver.Wait(1));
    EXPECT_EQ(receiver.Received()[0].action, action);
    EXPECT_TRUE(receiver.Received()[0].extras.empty());
    EXPECT_EQ(capture.Count("SSI received message"), 1u);
    EXPECT_EQ(tarnis_test::CountExact(capture,
                                      "SSI received message: action tarnis.test.HOSTILE\\x0a11-23 00:00:00.000 1 1 E "
                                      "Tarnis: forged\\xff json " +
                                          std::string(1001, '[') + std::string(23, ']') + "...[978 more bytes]",
                                      "", ANDROID_LOG_INFO),
              1u);
}

TEST_F(ServiceTest, ReportsReachTheJournalAndOnlyAnalyticsReportLibraryFailure) {
    int status = -1;
    for (const char* args : {"event reportEventV2 a b c true", "event reportEventsV2 a '[\"x\",\"y\"]' c false",
                             "event reportSimpleEvent 99 only-text"}) {
        Ctl(args, &status);
        EXPECT_EQ(status, 0) << args;
    }
    EXPECT_EQ(tarnis_test::ReadFile(root_.Sub("data/misc/tarnis/events.jsonl")),
              "{\"call\":\"reportEventV2\",\"args\":[\"a\",\"b\",\"c\",true]}\n"
              "{\"call\":\"reportEventsV2\",\"args\":[\"a\",[\"x\",\"y\"],\"c\",false]}\n"
              "{\"call\":\"reportSensorException\",\"args\":[\"only-text\"]}\n");

    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    EXPECT_TRUE(ssi_->reportEventV2("a", "b", "c", false).isOk());
    EXPECT_TRUE(ssi_->reportSimpleEvent(0, "x").isOk());
    EXPECT_EQ(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).getStatus(), STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(ssi_->reportTrelvoEvents("app", "pkg", {"{}"}, 0).getStatus(), STATUS_UNKNOWN_ERROR);
    // A client in another process sees the failure and says so.
    EXPECT_TRUE(tarnis_test::Holds(Ctl("event reportTrelvoEvent app pkg '{}' 0 2>&1", &status), "reportTrelvoEvent: "));
    EXPECT_EQ(status, 1);
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    EXPECT_TRUE(ssi_->reportTrelvoEvent("app", "pkg", "{}", 0).isOk());
}

// tarnisctl starts without the C++ runtime's shared library (jsoncpp would
// bring it back) and hands the JSON commands to tarnisctl-json beside it; one
// copied away alone says what it is missing instead of failing obscurely.
TEST_F(ServiceTest, TheToolStartsLeanAndHandsJsonCommandsToItsSibling) {
    const std::string tool = BuiltTool("tarnisctl");
    int status = -1;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    const std::string needed = RunShell("readelf -d " + tool + " | grep NEEDED", &status);
    ASSERT_EQ(status, 0) << needed;
    EXPECT_EQ(needed.find("libjsoncpp"), std::string::npos) << needed;
#endif
    // The transport and the layout, none of the daemon's own code.
    EXPECT_EQ(RunShell("nm -C " + tool + " | grep -cE 'ModuleManager|CaptureFile::|LogManager'"), "0\n");
    TempDir lone;
    ASSERT_EQ(system(("cp " + tool + " " + lone.path() + "/").c_str()), 0);
    EXPECT_EQ(RunShell(lone.Sub("tarnisctl") + " --root " + root_.path() + " event reportEventV2 a b c true 2>&1",
                       &status),
              "tarnisctl: event is run by " + lone.path() +
                  "/tarnisctl-json, which could not be started: No such file or directory\n");
    EXPECT_EQ(status, 1);
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
