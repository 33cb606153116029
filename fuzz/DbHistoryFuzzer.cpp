// Feeds arbitrary bytes, as the exception collector's db_history file, to
// the crash monitor's reading of it. The first line names the database
// being handled (the collector's names begin with "db."); the rest is the
// history, cut into lines as the monitor's 512-byte line buffer reads it.
// Nothing may crash or read past a line. A line counts only with a "CST"
// marker (any case): it sets the crash time (from 20 characters before the
// marker, line end cut); one that also names the database sets the kind
// (.NE, .JE, .SWT, first found in that order) and the kept line, and lines
// that do not name it leave those alone.
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"

namespace {

using Monitor = velmar::tarnis::AndroidCrashMonitorThread;

constexpr size_t kLineBuffer = 512;
// The monitor keeps the name in 256 bytes, terminator included.
constexpr size_t kNameBytes = 255;

std::string CutLineEnds(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    const std::string input(reinterpret_cast<const char*>(data), size);
    size_t at = input.find('\n');
    std::string name = input.substr(0, at);
    at = at == std::string::npos ? input.size() : at + 1;
    name = name.substr(0, name.find('\0'));
    if (name.compare(0, 3, "db.") != 0) name = "db." + name;
    name.resize(std::min(name.size(), kNameBytes));

    Monitor::CrashRecord record;
    while (at < input.size()) {
        size_t end = at;
        while (end < input.size() && end - at < kLineBuffer - 1) {
            if (input[end++] == '\n') break;
        }
        // Exactly the bytes read and the terminator the line buffer adds,
        // so that the sanitizer sees a read past them.
        const size_t length = end - at;
        std::unique_ptr<char[]> line(new char[length + 1]);
        memcpy(line.get(), input.data() + at, length);
        line[length] = '\0';
        at = end;

        const Monitor::CrashRecord before = record;
        const bool named = Monitor::ParseDbHistoryLine(line.get(), name.c_str(), &record);
        const std::string text = line.get();  // as C text: up to the first NUL
        const char* cst = strcasestr(text.c_str(), "CST");
        if (cst == nullptr) {
            if (named || record.time != before.time || record.line != before.line || record.kind != before.kind) {
                abort();
            }
            continue;
        }
        const size_t marker = static_cast<size_t>(cst - text.c_str());
        if (record.time != CutLineEnds(text.substr(marker >= 20 ? marker - 20 : 0))) abort();
        if (named != (text.find(name) != std::string::npos)) abort();
        if (!named) {
            if (record.line != before.line || record.kind != before.kind || record.type != before.type) abort();
            continue;
        }
        if (record.line != CutLineEnds(text) || record.line.size() >= kLineBuffer) abort();
        if (record.mainType != record.type) abort();
        const char* kind = text.find(".NE") != std::string::npos    ? "NE"
                           : text.find(".JE") != std::string::npos  ? "JE"
                           : text.find(".SWT") != std::string::npos ? "SWT"
                                                                    : "";
        const uint32_t type = kind[0] == 'N' ? 22 : kind[0] == 'J' ? 21 : kind[0] == 'S' ? 23 : 0;
        if (record.kind != kind || record.type != type) abort();
    }
    return 0;
}
