#pragma once

#include "framework/BroadcastReceiver.h"

namespace velmar {
namespace kolto {

class LogManager;

// Hands the log manager's broadcasts over to the manager's own thread.
class LogMgrBroadcastReceiver : public BroadcastReceiver {
public:
    explicit LogMgrBroadcastReceiver(LogManager* manager) : manager_(manager) {}
    void onReceive(Intent intent) const override;

private:
    LogManager* manager_;
};

}  // namespace kolto
}  // namespace velmar
