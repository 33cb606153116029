// Feeds arbitrary bytes, as the text of an update-engine log, to the OTA
// monitor's search of its logs: the line search for each of the four
// keywords it looks for, then the reading of the time or the package name
// out of the line found. Nothing may crash or overrun. The line found is the
// first line holding the keyword, cut into pieces of at most 2047 bytes as
// the monitor's line buffer reads them; a time is the text between the first
// "[" and the next "]", cut to 31 characters; a package name is the text
// after the line's last "/", cut to the record's 127 characters.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/OTAMonitor/OTAMonitor.h"

namespace {

namespace ota = velmar::tarnis;

// The pieces a line buffer of kOtaLineBytes reads: up to and with a line
// end, or kOtaLineBytes - 1 bytes, whichever comes first. Each is seen as
// text up to its first NUL.
std::vector<std::string> Pieces(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces;
    size_t at = 0;
    while (at < size) {
        size_t end = at;
        while (end < size && end - at < ota::kOtaLineBytes - 1) {
            if (data[end++] == '\n') break;
        }
        const std::string raw(reinterpret_cast<const char*>(data) + at, end - at);
        pieces.push_back(raw.substr(0, raw.find('\0')));
        at = end;
    }
    return pieces;
}

void CheckTime(const char* line) {
    std::unique_ptr<char[]> time = ota::extract_ota_time(line);
    const char* open = strchr(line, '[');
    const char* close = open != nullptr ? strchr(open + 1, ']') : nullptr;
    if (close == nullptr) {
        if (time != nullptr) abort();
        return;
    }
    if (time == nullptr) abort();
    const std::string between(open + 1, close);
    if (std::string(time.get()) != between.substr(0, ota::kOtaTimeChars)) abort();
}

void CheckPackageName(const char* line) {
    const std::string name = ota::extract_ota_package_name(line);
    std::string text = line;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) {
        if (!name.empty()) abort();
        return;
    }
    if (name != text.substr(slash + 1, 127)) abort();
    if (name.find('/') != std::string::npos) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    if (size == 0) return 0;  // a stream over nothing cannot be opened
    const std::vector<std::string> pieces = Pieces(data, size);
    static const char* const kKeywords[] = {"Update Boot Timestamp Start", "initial url:", "Updated Marker",
                                            "Merge finished with state MergeCompleted"};
    // The stream reads a private copy, so that nothing it does reaches the input.
    std::vector<char> bytes(data, data + size);
    for (const char* keyword : kKeywords) {
        FILE* stream = fmemopen(bytes.data(), bytes.size(), "r");
        if (stream == nullptr) abort();
        // Filled with a mark so that a missing terminator shows.
        char line[ota::kOtaLineBytes];
        memset(line, 'x', sizeof(line));
        const bool found = ota::search_keyword_line_in_stream(stream, line, keyword);
        fclose(stream);
        if (memchr(line, '\0', sizeof(line)) == nullptr) abort();

        const std::string* expected = nullptr;
        for (const std::string& piece : pieces) {
            if (piece.find(keyword) != std::string::npos) {
                expected = &piece;
                break;
            }
        }
        if (found != (expected != nullptr)) abort();
        if (!found) {
            if (line[0] != '\0') abort();
            continue;
        }
        if (std::string(line) != *expected) abort();
        CheckTime(line);
        CheckPackageName(line);
    }
    return 0;
}
