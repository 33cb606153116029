// Feeds arbitrary text to the f2fs status parser and to the I/O latency
// statistics parser, both of which read kernel files the daemon does not
// control. Neither may throw or crash; the status parser keeps its two lists
// in step, and every key it names is a non-empty word that a JSON member can
// carry.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/F2fsTrack/F2fsStatus.h"
#include "modules/F2fsTrack/IoLatencyReport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    namespace f2fs = velmar::kolto::F2fsTrack;
    const std::string text(reinterpret_cast<const char*>(data), size);

    std::vector<std::string> names;
    std::vector<int> values;
    f2fs::parseF2fsStatusText(text, names, values);
    if (names.size() != values.size()) abort();
    for (const std::string& name : names) {
        if (name.empty() || name.find_first_of(" \t\r\n") != std::string::npos) abort();
    }

    f2fs::IoLatencyData::FsLatencyRW rw;
    f2fs::parseRwData(text, rw);
    Json::Value event(Json::objectValue);
    f2fs::reportRwToJson(event, rw);
    return 0;
}
