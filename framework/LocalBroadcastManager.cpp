// The verbose line that times each delivery pass stays in release builds,
// where liblog would otherwise compile ALOGV out.
#define LOG_NDEBUG 0
#define LOG_TAG "Tarnis-LocalBroadcastManager"

#include "framework/LocalBroadcastManager.h"

#include <chrono>

#include <log/log.h>

#include "framework/ModuleManager.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisMessage.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

constexpr int kWhatDeliver = 1;

long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

LocalBroadcastManager& LocalBroadcastManager::getInstance() {
    // Never destroyed: receivers may broadcast until the process ends.
    static LocalBroadcastManager* instance = new LocalBroadcastManager;
    return *instance;
}

LocalBroadcastManager::LocalBroadcastManager() {
    receiversByAction.max_load_factor(1.0f);
    recordsByReceiver.max_load_factor(1.0f);
    handler = new TarnisHandler(ModuleManager::GetManagerLooper(),
                                [this](TarnisMessage* msg) { executePendingBroadcasts(msg); });
}

void LocalBroadcastManager::registerReceiver(BroadcastReceiver* receiver, IntentFilter filter) {
    std::lock_guard<std::mutex> guard(lock);
    auto record = std::make_shared<ReceiverRecord>();
    record->filter = std::move(filter);
    record->receiver = receiver;
    recordsByReceiver[receiver].push_back(record);
    for (const std::string& action : record->filter.actions) {
        receiversByAction[action].push_back(record);
    }
}

void LocalBroadcastManager::unregisterReceiver(BroadcastReceiver* receiver) {
    std::unique_lock<std::mutex> guard(lock);
    auto found = recordsByReceiver.find(receiver);
    if (found == recordsByReceiver.end()) return;
    for (const RecordPtr& record : found->second) {
        record->dead = true;
        for (const std::string& action : record->filter.actions) {
            auto list = receiversByAction.find(action);
            if (list == receiversByAction.end()) continue;
            auto& records = list->second;
            for (auto it = records.begin(); it != records.end();) {
                it = (*it)->receiver == receiver ? records.erase(it) : it + 1;
            }
            if (records.empty()) receiversByAction.erase(list);
        }
    }
    recordsByReceiver.erase(found);
    // The records are dead, so no further call can start; one may be under
    // way, with the lock released. A receiver unregistering itself from its
    // own onReceive must not wait for itself.
    if (deliveringThread != std::this_thread::get_id()) {
        delivered.wait(guard, [this, receiver] { return delivering != receiver; });
    }
}

bool LocalBroadcastManager::sendBroadcast(Intent intent, bool internal) {
    std::lock_guard<std::mutex> guard(lock);
    auto list = receiversByAction.find(intent.action);
    if (list == receiversByAction.end()) return false;

    std::vector<RecordPtr> matched;
    for (const RecordPtr& record : list->second) {
        if (record->broadcasting) {
            ALOGD("[%s] Filter's target already added", "sendBroadcast");
            continue;
        }
        if (!record->filter.matchAction(intent.action)) {
            ALOGD("[%s] filter not matched. Reason: Action not matched!", "sendBroadcast");
            continue;
        }
        if (record->filter.internal != internal) {
            ALOGD("[%s] filter not matched. Reason: filter require internal %d but this broadcast is %d",
                  "sendBroadcast", record->filter.internal ? 1 : 0, internal ? 1 : 0);
            continue;
        }
        record->broadcasting = true;
        matched.push_back(record);
    }
    for (const RecordPtr& record : matched) record->broadcasting = false;
    pending.push_back(BroadcastRecord{std::move(intent), std::move(matched)});

    // One wake-up message at a time: a burst of sends is delivered by a single
    // pass on the manager's thread.
    if (!handler->hasMessages(kWhatDeliver)) {
        handler->sendMessage(TarnisMessage::obtain(kWhatDeliver, nullptr, 1));
    }
    return true;
}

void LocalBroadcastManager::executePendingBroadcasts(TarnisMessage* msg) {
    if (msg == nullptr || msg->what != kWhatDeliver) return;
    for (;;) {
        std::list<BroadcastRecord> batch;
        {
            std::lock_guard<std::mutex> guard(lock);
            batch.swap(pending);
        }
        if (batch.empty()) return;
        const long start = NowMs();
        for (const BroadcastRecord& broadcast : batch) {
            for (const RecordPtr& record : broadcast.receivers) {
                BroadcastReceiver* receiver = nullptr;
                {
                    // Marked under the same lock as the look at `dead`: an
                    // unregistering thread either finds the record dead
                    // before the call or waits for the call to return.
                    std::lock_guard<std::mutex> guard(lock);
                    if (!record->dead) receiver = record->receiver;
                    if (receiver != nullptr) {
                        delivering = receiver;
                        deliveringThread = std::this_thread::get_id();
                    }
                }
                if (receiver == nullptr) continue;
                const long before = NowMs();
                receiver->onReceive(broadcast.intent);
                const long spent = NowMs() - before;
                {
                    std::lock_guard<std::mutex> guard(lock);
                    delivering = nullptr;
                    deliveringThread = std::thread::id();
                }
                delivered.notify_all();
                if (spent >= kSlowReceiverMs) {
                    ALOGW("[%s] The time that calling onReceive is too long!! spend time %ld, action: %s",
                          "executePendingBroadcasts", spent, StringUtil::ForLog(broadcast.intent.action).c_str());
                }
            }
        }
        ALOGV("[%s] Called all onReceive callback tooked %ld ms", "executePendingBroadcasts",
              NowMs() - start);
    }
}

}  // namespace kolto
}  // namespace velmar
