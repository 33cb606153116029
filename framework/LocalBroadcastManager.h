#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/BroadcastReceiver.h"
#include "framework/Intent.h"
#include "framework/IntentFilter.h"

namespace velmar {
namespace kolto {

class TarnisHandler;
class TarnisMessage;

// Matches intents against registered filters and delivers them later, in
// sending order, on the module manager's thread.
class LocalBroadcastManager {
public:
    static LocalBroadcastManager& getInstance();

    void registerReceiver(BroadcastReceiver* receiver, IntentFilter filter);
    // After this returns the receiver is never called again, and it is not
    // being called: when its onReceive is running on the delivering thread,
    // this waits for it to return (unless called from that very onReceive),
    // so the caller may destroy the receiver at once. Do not call it while
    // holding a lock that the receiver's onReceive takes.
    void unregisterReceiver(BroadcastReceiver* receiver);
    // True when some receiver list exists for the intent's action, whether or
    // not a filter then matched.
    bool sendBroadcast(Intent intent, bool internal);

    // Receivers slower than this are named in a warning.
    static constexpr long kSlowReceiverMs = 301;

private:
    struct ReceiverRecord {
        IntentFilter filter;
        BroadcastReceiver* receiver;
        bool broadcasting = false;
        bool dead = false;
    };
    // Records are shared with pending broadcasts: unregistering marks them
    // dead, and a pending delivery still finds the mark.
    using RecordPtr = std::shared_ptr<ReceiverRecord>;
    struct BroadcastRecord {
        Intent intent;
        std::vector<RecordPtr> receivers;
    };

    LocalBroadcastManager();
    void executePendingBroadcasts(TarnisMessage* msg);

    TarnisHandler* handler;
    std::unordered_map<std::string, std::vector<RecordPtr>> receiversByAction;
    std::unordered_map<BroadcastReceiver*, std::vector<RecordPtr>> recordsByReceiver;
    std::list<BroadcastRecord> pending;
    std::mutex lock;
    // The receiver whose onReceive is running, and on which thread; guarded
    // by `lock`. Unregistering waits on `delivered` until it has returned.
    BroadcastReceiver* delivering = nullptr;
    std::thread::id deliveringThread;
    std::condition_variable delivered;
};

}  // namespace kolto
}  // namespace velmar
