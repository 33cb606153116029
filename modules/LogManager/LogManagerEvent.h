#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/json.h>

namespace velmar {
namespace kolto {

// What one cleaning by size did to a log directory, as the quality service
// gets it.
struct LogManagerEvent {
    static constexpr char EVENT_NAME[] = "logManage";

    std::string dirFullPath;
    int64_t dirSizeBefore = 0;
    int64_t dirSizeAfter = 0;
    bool isReuseOpen = false;
    int64_t reuseClearSize = 0;
    int64_t reuseMoveSize = 0;

    // The JSON keys, in member order (EVENT_NAME first).
    static const std::vector<std::string>& Keys();
    // An object with every key; false when a member could not be written.
    bool ToJson(Json::Value& out) const;
};

}  // namespace kolto
}  // namespace velmar
