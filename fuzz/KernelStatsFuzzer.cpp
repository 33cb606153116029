// Feeds arbitrary text to the reader of the kernel's statistics tables. It
// must never throw or crash; every value it keeps is a 32-bit integer, and
// what it read, written back as "name: value" lines, reads the same again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/KernelTrack/KernelStatsTrack.h"
#include "modules/KernelTrack/KernelTrackUtils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    using velmar::kolto::KernelTrack::KernelStatsTrack;
    using velmar::kolto::KernelTrack::KernelTrackUtils;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Json::Value node = KernelTrackUtils::parseKernelText(text);
    if (!node.isObject()) abort();
    std::string again;
    std::vector<std::string> names = node.getMemberNames();
    for (const std::string& name : names) {
        if (!node[name].isInt()) abort();
        if (name.find(':') != std::string::npos || name.find('\n') != std::string::npos) abort();
        again += name + ": " + std::to_string(node[name].asInt()) + "\n";
    }
    if (!(KernelTrackUtils::parseKernelText(again) == node)) abort();

    // The event carries exactly the table's fields that were read.
    for (const auto& table : KernelStatsTrack::tables()) {
        const Json::Value event = KernelTrackUtils::convertFieldsToJSON(table.eventName, table.fields, node);
        size_t found = 0;
        for (const std::string& field : table.fields) found += node.isMember(field) ? 1 : 0;
        if (event.size() != found + 1 || event["EVENT_NAME"].asString() != table.eventName) abort();
    }
    const Json::Value event = KernelTrackUtils::convertFieldsToJSON("fuzz", names, node);
    bool allZero = true;
    for (const std::string& name : names) allZero = allZero && node[name].asInt() == 0;
    if (KernelTrackUtils::allFieldsEmptyOrZero(event, names) != allZero) abort();
    return 0;
}
