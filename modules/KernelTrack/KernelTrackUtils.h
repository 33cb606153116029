#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace velmar {
namespace kolto {
namespace KernelTrack {

// Reads one kernel statistics file, turns it into an analytics event, sends
// it and resets the kernel's counters. The statistics files come from the
// kernel and are treated as outside input: a line that cannot be read is
// logged and skipped, never fatal.
class KernelTrackUtils {
public:
    // Analytics identity of the kernel statistics events.
    static constexpr char kTrelvoAppId[] = "52000178316";
    static constexpr char kTrelvoSource[] = "Tarnis.Kernel_stats";

    // Reads, converts and sends the table of `path`; true when the event was sent.
    static bool reportKernelStatsEvent(const std::string& path, const std::string& eventName,
                                       const std::vector<std::string>& fields);
    // Writes "1\n" to the reset node; true when that write went through.
    static bool clearKernelNode(const std::string& path);

    // Reads `path` and parses it into `out` (name to value); false when the
    // file cannot be read or is empty.
    static bool parseKernelInfo(const std::string& path, Json::Value* out);
    // The "name: value" lines of `text`, as parseKernelInfo reads them.
    static Json::Value parseKernelText(const std::string& text);
    // "EVENT_NAME" and every field of `fields` found in `node`.
    static Json::Value convertFieldsToJSON(const std::string& eventName, const std::vector<std::string>& fields,
                                           const Json::Value& node);
    // True when every field of `fields` is absent from `event` or 0.
    static bool allFieldsEmptyOrZero(const Json::Value& event, const std::vector<std::string>& fields);
};

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
