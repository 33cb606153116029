#pragma once

#include "framework/Intent.h"

namespace velmar {
namespace kolto {

// Receives broadcasts on the module manager's thread, one at a time; each
// call gets a copy of the intent of its own.
class BroadcastReceiver {
public:
    virtual ~BroadcastReceiver() = default;
    virtual void onReceive(Intent intent) const = 0;
};

}  // namespace kolto
}  // namespace velmar
