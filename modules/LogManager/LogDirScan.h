#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "modules/LogManager/LogConfig.h"
#include "utils/StringUtil.h"

// How the log manager reads a log directory: its entries and their sizes,
// the dates their names carry, the directory opened below its tree.
namespace velmar {
namespace kolto {
namespace logscan {

inline constexpr int64_t kDayMs = 86400000;
inline constexpr int kSystemUid = 1000;

inline bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

inline bool Contains(const std::string& text, const char* piece) { return text.find(piece) != std::string::npos; }

// Outside text (a configured path, an entry's name) as a log line shows it.
inline std::string Esc(const std::string& text) { return StringUtil::ForLog(text); }

// The size of one entry of the directory `dirFd` as cleaning counts it: a
// regular file's bytes, a directory's tree, nothing for anything else (a
// link is not ours to weigh).
uint64_t EntrySizeAt(int dirFd, const std::string& name);

// Opens a log directory below its tree, no component a link and no ".."
// leading out; the cleaning then works from this descriptor alone, so a
// component swapped for a link meanwhile cannot lead it anywhere else.
android::base::unique_fd OpenLogDir(const std::string& devicePath, std::string* why);

// The first date-time in `name` (leftmost, then longest), as [start, end).
bool FindDate(const std::string& name, size_t* start, size_t* end);
// The whole name reads "ramdump_<anything>_<date>_<time><anything>.<anything>".
bool IsRamdumpName(const std::string& name);
// The date a log entry was named after, as local time; false when its name
// carries none.
bool CompareTimeStrExpired(const std::string& name, uint32_t maxValidDay, int64_t nowMs, int64_t* ageMs);

// Lists the entries of one log directory and adds up their sizes. Nothing
// is followed through a link, and an entry gone by the time it is looked at
// is left out: another process may be cleaning too.
struct ScanResult {
    bool opened = false;
    bool closed = true;
    int error = 0;
    uint64_t total = 0;
    std::map<std::string, uint64_t> sizes;  // what each entry counted for
};

ScanResult ScanDirectory(int dirFd, const LogConfig& config, std::vector<std::string>& names, const char* op,
                         const char* prefix, int unknownPrio);

}  // namespace logscan
}  // namespace kolto
}  // namespace velmar
