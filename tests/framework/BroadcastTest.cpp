#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/LocalBroadcastManager.h"
#include "framework/ModuleManager.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisLooper.h"
#include "platform/LogCapture.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"

using namespace velmar::kolto;
using tarnis_test::CountExact;
using tarnis_test::DrainManagerThread;
using tarnis_test::InternalReceiver;
using tarnis_test::NumbersInLines;

namespace {

const char kInternalTag[] = "Tarnis-InternalBroadcastManager";
const char kLocalTag[] = "Tarnis-LocalBroadcastManager";

}  // namespace

// What the peer is sent: every type with its code, in key order.
TEST(BroadcastTest, ExtrasSerialiseInKeyOrderWithTypeCodes) {
    Intent intent("tarnis.test.SERIALISE");
    Json::Value json(Json::objectValue);
    json["n"] = 3;
    json["list"].append("v");
    intent.putExtra("json", json);
    intent.putExtra("int32", static_cast<int32_t>(-42));
    intent.putExtra("bool", false);
    intent.putExtra("string", std::string("h\xc3\xa9llo \"quoted\""));
    intent.putExtra("float", 1.5f);
    intent.putExtra("int64", static_cast<int64_t>(-9000000000123LL));
    // A C string travels as a string; an "any" value has no value and is logged.
    intent.putExtra("cstring", "plain");
    struct Opaque {};
    intent.putExtra("z", Opaque{});
    platform::LogCapture capture;
    EXPECT_EQ(InternalBroadcastManager::intentToJsonStr(intent),
              "{\"extras\":[{\"key\":\"bool\",\"value\":false,\"value_type\":1},"
              "{\"key\":\"cstring\",\"value\":\"plain\",\"value_type\":2},"
              "{\"key\":\"float\",\"value\":1.5,\"value_type\":4},"
              "{\"key\":\"int32\",\"value\":-42,\"value_type\":6},"
              "{\"key\":\"int64\",\"value\":-9000000000123,\"value_type\":5},"
              "{\"key\":\"json\",\"value\":{\"list\":[\"v\"],\"n\":3},\"value_type\":0},"
              "{\"key\":\"string\",\"value\":\"h\\u00e9llo \\\"quoted\\\"\",\"value_type\":2},"
              "{\"key\":\"z\",\"value_type\":7}]}\n");
    EXPECT_EQ(CountExact(capture,
                         "[generateJsonValueByExtra] Unknown Type! value is not the supported type. "
                         "Supported type: int boot string float int64_t Json::Value, current type is 7",
                         kInternalTag, ANDROID_LOG_ERROR),
              1u);
}

// A body without an extras array still delivers the action; an ill-typed element is left out with a line.
TEST(BroadcastTest, PeerJsonThatIsMalformedOrIllTypedStillDeliversTheAction) {
    InternalReceiver receiver("tarnis.test.PEER");
    platform::LogCapture capture;
    const std::string bodies[] = {
        "",
        "{not json",
        "{\"extras\":5}",
        "[1,2]",
        // Past the reader's depth limit: refused before it is parsed.
        std::string(66, '[') + std::string(66, ']'),
        R"({"extras":[
            {"key":"s","value_type":2,"value":"text"},
            {"key":"k","value_type":6,"value":"abc"},
            {"key":[],"value_type":2,"value":"v"},
            {"key":"i","value_type":6,"value":-2147483648},
            {"key":"t","value_type":"x","value":1},
            {"key":"u","value_type":1e30,"value":1},
            {"key":"o32","value_type":6,"value":2147483648},
            {"key":"l","value_type":5,"value":9007199254740993},
            {"key":"of","value_type":4,"value":1e39},
            {"key":"f","value_type":4,"value":1e30},
            {"key":"fr","value_type":6,"value":1.5},
            {"key":"b","value_type":1,"value":true},
            {"key":"mv","value_type":6},
            7,
            {"key":"unk","value_type":9,"value":1},
            {"key":"j","value_type":0,"value":{"x":[1]}},
            {"key":"c","value_type":3,"value":"cs"}
        ]})",
    };
    for (const std::string& body : bodies) {
        InternalBroadcastManager::onTarnisIntlMessageReceived("tarnis.test.PEER", body);
    }
    ASSERT_TRUE(receiver.Wait(std::size(bodies)));
    const std::vector<Intent> got = receiver.Received();
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].action, "tarnis.test.PEER");
        EXPECT_EQ(got[i].extras.empty(), i + 1 < got.size()) << i;
    }
    const Intent& typed = got.back();
    EXPECT_EQ(typed.getExtra<std::string>("s", ""), "text");
    EXPECT_EQ(typed.getExtra<int32_t>("i", 0), INT32_MIN);
    EXPECT_EQ(typed.getExtra<int64_t>("l", 0), 9007199254740993LL);
    EXPECT_FLOAT_EQ(typed.getExtra<float>("f", 0.0f), 1e30f);
    EXPECT_TRUE(typed.getExtra<bool>("b", false));
    Json::Value expected;
    expected["x"].append(1);
    EXPECT_EQ(typed.getExtra<Json::Value>("j", Json::Value()), expected);
    EXPECT_EQ(typed.getExtra<std::string>("c", ""), "cs");
    EXPECT_EQ(typed.extras.size(), 7u);

    // The empty body, "{not json" and the deep one are not JSON.
    EXPECT_EQ(CountExact(capture, "[jsonStrToIntent] ConvertStringToJson failed!", kInternalTag, ANDROID_LOG_ERROR),
              3u);
    EXPECT_EQ(CountExact(capture, "[jsonStrToIntent] extras is null or not the valid array! intent will no extra info",
                         kInternalTag, ANDROID_LOG_DEBUG),
              2u);
    const char* skipped[] = {
        "[putExtraByJson] Skipped extra #1 (key k): value \"abc\" does not fit type 6",
        "[putExtraByJson] Skipped extra #2: key [] is not a string",
        "[putExtraByJson] Skipped extra #4: value_type \"x\" is not a type code",
        "[putExtraByJson] Skipped extra #5: value_type 1e+30 is not a type code",
        "[putExtraByJson] Skipped extra #6 (key o32): value 2147483648 does not fit type 6",
        "[putExtraByJson] Skipped extra #8 (key of): value 9.9999999999999994e+38 does not fit type 4",
        "[putExtraByJson] Skipped extra #10 (key fr): value 1.5 does not fit type 6",
        "[putExtraByJson] Skipped extra #12 (key mv): value null does not fit type 6",
        "[putExtraByJson] Skipped extra #13: not an object",
        "[putExtraByJson] Unknown Type! value is not the supported type. Supported type: int boot string "
        "float int64_t Json::Value, current type is 9",
    };
    for (const char* line : skipped) EXPECT_EQ(CountExact(capture, line, kInternalTag, ANDROID_LOG_ERROR), 1u) << line;
    EXPECT_EQ(capture.Count("[putExtraByJson] ", kInternalTag, ANDROID_LOG_ERROR), std::size(skipped));
}

TEST(BroadcastTest, MatchingHonoursActionAndInternalMarker) {
    InternalReceiver internalOnly("tarnis.test.MATCH");
    tarnis_test::RecordingReceiver anyLocal;
    LocalBroadcastManager& local = LocalBroadcastManager::getInstance();
    local.registerReceiver(&anyLocal, IntentFilter({"tarnis.test.MATCH", "tarnis.test.OTHER"}));

    EXPECT_FALSE(local.sendBroadcast(Intent("tarnis.test.NOBODY"), false));
    platform::LogCapture capture;
    EXPECT_TRUE(local.sendBroadcast(Intent("tarnis.test.MATCH"), false));
    ASSERT_TRUE(anyLocal.Wait(1));
    DrainManagerThread();
    EXPECT_TRUE(internalOnly.Received().empty());
    EXPECT_EQ(CountExact(capture,
                         "[sendBroadcast] filter not matched. Reason: filter require internal 1 "
                         "but this broadcast is 0",
                         kLocalTag, ANDROID_LOG_DEBUG),
              1u);
    EXPECT_TRUE(InternalBroadcastManager::sendBroadcast(Intent("tarnis.test.MATCH"), false));
    ASSERT_TRUE(internalOnly.Wait(1));
    local.unregisterReceiver(&anyLocal);
}

TEST(BroadcastTest, BurstWhileBusyIsOneWakeUpInSendingOrderAndSkipsTheUnregistered) {
    InternalReceiver kept("tarnis.test.BURST");
    InternalReceiver dropped("tarnis.test.BURST");
    std::optional<platform::LogCapture> capture;
    {
        tarnis_test::LooperBlocker blocker;
        blocker.Block(*ModuleManager::GetManagerHandler());
        // Counted from here: an earlier pass may log its closing line until the blocker runs.
        capture.emplace();
        TarnisMessageQueue& queue = ModuleManager::GetManagerLooper()->queue();
        const size_t queued = queue.size();
        for (int i = 0; i < 100; ++i) {
            Intent intent("tarnis.test.BURST");
            intent.putExtra("i", i);
            EXPECT_TRUE(InternalBroadcastManager::sendBroadcast(intent, false));
        }
        // The whole burst queued one wake-up message on the manager thread.
        EXPECT_EQ(queue.size(), queued + 1);
        EXPECT_TRUE(queue.hasMessages(1));
        InternalBroadcastManager::unregisterReceiver(&dropped);
    }
    ASSERT_TRUE(kept.Wait(100));
    DrainManagerThread();
    auto got = kept.Received();
    ASSERT_EQ(got.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(got[i].getExtra<int32_t>("i", -1), i);
    EXPECT_TRUE(dropped.Received().empty());
    // A single delivery pass served the whole burst.
    EXPECT_EQ(NumbersInLines(*capture, "[executePendingBroadcasts] Called all onReceive callback tooked ", " ms",
                             kLocalTag, ANDROID_LOG_VERBOSE)
                  .size(),
              1u);
}

TEST(BroadcastTest, SlowReceiverIsNamedInAWarning) {
    // The action may come from the peer: it is named, but printably.
    const std::string action = "tarnis.test.SLOW\nE fake\xff";
    InternalReceiver slow(action, std::chrono::milliseconds(320));
    platform::LogCapture capture;
    InternalBroadcastManager::sendBroadcast(Intent(action), false);
    ASSERT_TRUE(slow.Wait(1));
    // The warning follows the call within the same delivery pass.
    DrainManagerThread();
    const std::vector<long> spent =
        NumbersInLines(capture, "[executePendingBroadcasts] The time that calling onReceive is too long!! spend time ",
                       ", action: tarnis.test.SLOW\\x0aE fake\\xff", kLocalTag, ANDROID_LOG_WARN);
    ASSERT_EQ(spent.size(), 1u);
    EXPECT_GE(spent[0], 301);
    EXPECT_EQ(capture.Count("", kLocalTag, ANDROID_LOG_WARN), 1u);
}

namespace {

// What one receiver saw, kept outside it so that it can be read once it is gone.
struct DeliveryState {
    std::promise<void> entered;
    std::shared_future<void> release;
    std::atomic<bool> unregistered{false};
    std::atomic<int> calls{0};
    std::atomic<int> callsAfterUnregister{0};
};

// Touches its own members around the pause: a call on a destroyed one is a use after free, and a count.
class TouchingReceiver : public BroadcastReceiver {
public:
    explicit TouchingReceiver(std::shared_ptr<DeliveryState> state) : state_(std::move(state)) {}
    void onReceive(Intent intent) const override {
        touched_ += intent.action.size();
        if (state_->unregistered.load()) ++state_->callsAfterUnregister;
        if (state_->calls.fetch_add(1) == 0) state_->entered.set_value();
        if (state_->release.valid()) state_->release.wait();
        touched_ += intent.action.size();
        if (state_->unregistered.load()) ++state_->callsAfterUnregister;
    }

private:
    std::shared_ptr<DeliveryState> state_;
    mutable size_t touched_ = 0;
};

}  // namespace

TEST(BroadcastTest, UnregisteringWaitsForACallUnderWayAndNoCallFollows) {
    LocalBroadcastManager& local = LocalBroadcastManager::getInstance();
    auto state = std::make_shared<DeliveryState>();
    std::promise<void> release;
    state->release = release.get_future().share();
    auto* receiver = new TouchingReceiver(state);
    local.registerReceiver(receiver, IntentFilter({"tarnis.test.UNREGISTER"}));
    ASSERT_TRUE(local.sendBroadcast(Intent("tarnis.test.UNREGISTER"), false));
    ASSERT_EQ(state->entered.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);

    // Unregistered and destroyed on another thread mid-call: the unregistering must wait for the call.
    std::promise<void> unregistered;
    std::future<void> done = unregistered.get_future();
    std::thread other([&] {
        local.unregisterReceiver(receiver);
        state->unregistered = true;
        delete receiver;
        unregistered.set_value();
    });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(done.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    other.join();
    DrainManagerThread();
    EXPECT_EQ(state->calls.load(), 1);
    EXPECT_EQ(state->callsAfterUnregister.load(), 0);
    EXPECT_FALSE(local.sendBroadcast(Intent("tarnis.test.UNREGISTER"), false));

    // Destroyed while the manager thread may be delivering: between its look and the call is the window.
    std::vector<std::shared_ptr<DeliveryState>> states;
    for (int i = 0; i < 1000; ++i) {
        auto state = std::make_shared<DeliveryState>();
        states.push_back(state);
        auto* receiver = new TouchingReceiver(state);
        local.registerReceiver(receiver, IntentFilter({"tarnis.test.RACE"}));
        ASSERT_TRUE(local.sendBroadcast(Intent("tarnis.test.RACE"), false));
        if (i % 3 == 0) std::this_thread::yield();
        local.unregisterReceiver(receiver);
        state->unregistered = true;
        delete receiver;
    }
    DrainManagerThread();
    for (const auto& state : states) EXPECT_EQ(state->callsAfterUnregister.load(), 0);
}

TEST(BroadcastTest, AReceiverMayUnregisterItselfFromItsOwnOnReceive) {
    class SelfRemoving : public tarnis_test::RecordingReceiver {
    public:
        void onReceive(Intent intent) const override {
            LocalBroadcastManager::getInstance().unregisterReceiver(const_cast<SelfRemoving*>(this));
            RecordingReceiver::onReceive(std::move(intent));
        }
    } receiver;
    LocalBroadcastManager& local = LocalBroadcastManager::getInstance();
    local.registerReceiver(&receiver, IntentFilter({"tarnis.test.SELF"}));
    {
        tarnis_test::LooperBlocker blocker;
        blocker.Block(*ModuleManager::GetManagerHandler());
        EXPECT_TRUE(local.sendBroadcast(Intent("tarnis.test.SELF"), false));
        EXPECT_TRUE(local.sendBroadcast(Intent("tarnis.test.SELF"), false));
    }
    // Called once, without waiting for itself; the pass's second delivery finds it gone.
    ASSERT_TRUE(receiver.Wait(1));
    DrainManagerThread();
    EXPECT_EQ(receiver.Received().size(), 1u);
    EXPECT_FALSE(local.sendBroadcast(Intent("tarnis.test.SELF"), false));
}
