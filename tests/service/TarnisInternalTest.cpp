#include <condition_variable>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "platform/LogCapture.h"
#include "service/TarnisInternal.h"

using aidl::velmar::system::tarnis::common::TarnisInternal;
using namespace velmar::kolto;

namespace {

struct Receiver : BroadcastReceiver {
    mutable std::mutex lock;
    mutable std::condition_variable cond;
    mutable std::vector<Intent> got;
    void onReceive(Intent intent) const override {
        std::lock_guard<std::mutex> guard(lock);
        got.push_back(std::move(intent));
        cond.notify_all();
    }
};

}  // namespace

// What a broken or hostile peer can send through the internal service: a
// document deep enough to make the JSON reader give up, and an action that
// would forge a second log line. The daemon answers OK, logs one bounded,
// printable line and still delivers the action as it came.
TEST(TarnisInternalTest, HostileMessageIsLoggedPrintablyAndStillDelivered) {
    const std::string action = "tarnis.test.HOSTILE\n11-23 00:00:00.000 1 1 E Tarnis: forged\xff";
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    Receiver receiver;
    InternalBroadcastManager::registerReceiver(&receiver, IntentFilter({action}));
    auto service = ndk::SharedRefBase::make<TarnisInternal>();

    platform::LogCapture capture;
    EXPECT_TRUE(service->transferMessage(action, deep).isOk());
    {
        std::unique_lock<std::mutex> guard(receiver.lock);
        ASSERT_TRUE(receiver.cond.wait_for(guard, std::chrono::seconds(10), [&] { return !receiver.got.empty(); }));
        EXPECT_EQ(receiver.got[0].action, action);
        EXPECT_TRUE(receiver.got[0].extras.empty());
    }
    const std::string expected = "SSI received message: action tarnis.test.HOSTILE\\x0a11-23 00:00:00.000 1 1 E "
                                 "Tarnis: forged\\xff json " +
                                 std::string(1001, '[') + std::string(23, ']') + "...[978 more bytes]";
    size_t received = 0;
    for (const platform::LogLine& line : capture.Lines()) {
        if (line.text.find("SSI received message") == std::string::npos) continue;
        ++received;
        EXPECT_EQ(line.prio, ANDROID_LOG_INFO);
        EXPECT_EQ(line.text, expected);
    }
    EXPECT_EQ(received, 1u);
    EXPECT_TRUE(capture.HasLine("[jsonStrToIntent] ConvertStringToJson failed!", "Tarnis-InternalBroadcastManager",
                                 ANDROID_LOG_ERROR));
    InternalBroadcastManager::unregisterReceiver(&receiver);
}
