#pragma once

#include <list>
#include <memory>
#include <mutex>
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
};

}  // namespace kolto
}  // namespace velmar
