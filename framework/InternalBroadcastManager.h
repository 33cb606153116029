#pragma once

#include <string>

#include "framework/BroadcastReceiver.h"
#include "framework/Intent.h"
#include "framework/IntentFilter.h"

namespace velmar {
namespace kolto {

// The daemon's front door to broadcasting: receivers registered here only
// take internal broadcasts, and a sender may ask for its intent to be carried
// to the peer daemon as (action, JSON text).
class InternalBroadcastManager {
public:
    static void registerReceiver(BroadcastReceiver* receiver, IntentFilter filter);
    static void unregisterReceiver(BroadcastReceiver* receiver);
    // Forwards to the peer when asked, then delivers locally; returns the
    // local result.
    static bool sendBroadcast(Intent intent, bool toPeer);
    // The wire form of the intent's extras: {"extras":[{"key",...,"value_type",...,"value",...}]}.
    static std::string intentToJsonStr(Intent& intent);
    // Delivers a peer's message locally (never back to the peer).
    static void onTarnisIntlMessageReceived(const std::string& action, const std::string& json);
};

}  // namespace kolto
}  // namespace velmar
