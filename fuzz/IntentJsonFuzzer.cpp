// Feeds a peer daemon's broadcast message (action, newline, JSON text) to the
// receiving side, as a hostile or broken peer could send it.
#include <cstddef>
#include <cstdint>
#include <string>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "framework/InternalBroadcastManager.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    std::string input(reinterpret_cast<const char*>(data), size);
    size_t newline = input.find('\n');
    std::string action = newline == std::string::npos ? input : input.substr(0, newline);
    std::string json = newline == std::string::npos ? "" : input.substr(newline + 1);
    velmar::kolto::InternalBroadcastManager::onTarnisIntlMessageReceived(action, json);
    return 0;
}
