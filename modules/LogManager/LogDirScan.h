#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <android-base/unique_fd.h>

#include "modules/LogManager/LogConfig.h"
#include "utils/StringUtil.h"

// How the log manager reads a log directory: its entries and their sizes,
// the dates their names carry, the directory opened below its tree, and
// what it keeps of each directory between two full readings.
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

enum class EntryKind : uint8_t { kOther, kFile, kDir };

struct EntryInfo {
    uint64_t size = 0;  // what the entry counts for: nothing unless a file or a directory
    EntryKind kind = EntryKind::kOther;
};

// What looking at one name of a log directory found.
enum class Seen {
    kTemporary,  // an archive being written, or left by a killed compression
    kFiltered,   // not a name the record manages (the ramdump filter)
    kVanished,   // gone by the time it was looked at
    kCounted,    // a log entry; `info` says what it counts for
};

// Looks at one name as the cleaning does, writing the lines that scan
// writes for it (under `op`, `prefix` before the text, unknown kinds at
// `unknownPrio`). Nothing is followed through a link.
Seen MeasureEntry(int dirFd, const std::string& name, const LogConfig& config, const char* op, const char* prefix,
                  int unknownPrio, EntryInfo* info);

// Lists the entries of one log directory and adds up their sizes. An entry
// gone by the time it is looked at is left out: another process may be
// cleaning too.
struct ScanResult {
    bool opened = false;
    bool closed = true;
    int error = 0;
    uint64_t total = 0;
    std::map<std::string, EntryInfo> entries;  // what each entry counted for
    std::vector<std::string> filtered;         // names the ramdump filter left out
};

ScanResult ScanDirectory(int dirFd, const LogConfig& config, std::vector<std::string>& names, const char* op,
                         const char* prefix, int unknownPrio);

// What the manager knows of one managed directory between two full
// readings: its entries by name (byte-wise, the order cleaning takes them
// in), each one's kind and size, and their total. File events keep it up to
// date; the cleaning updates it as it deletes and packs.
//
// Events tell of names, not of bytes: a file growing inside an entry is
// never reported. So at each check some entries are measured again, those a
// log directory's writers may still be adding to:
//   - the last eight that arrived (were created or moved in) within the
//     last minute, whatever their names: an entry dated in the past (a dump
//     collected after the fact) is still being filled right after it
//     appears;
//   - the two newest by name of the others: loggers name entries after the
//     time they start them and write into the newest, which gets its last
//     lines while the next one starts (an archive another process drops in
//     meanwhile, dated later, does not stand in for them).
// The entry whose arrival started the check is measured as it arrives.
// Anything else that changes without an event is caught by the next full
// reading, which also comes periodically.
class LogDirState {
public:
    using Entries = std::map<std::string, EntryInfo>;

    static constexpr int64_t kFullPeriodMs = 10 * 60 * 1000;
    static constexpr size_t kNewestRemeasured = 2;
    static constexpr size_t kArrivalsRemeasured = 8;
    static constexpr int64_t kArrivalWindowMs = 60 * 1000;

    // True unless what is kept may be trusted for the directory open with
    // this identity at `nowMs` (steady clock).
    bool NeedsFullReading(dev_t dev, ino_t ino, int64_t nowMs) const;
    // The directory could not be read: the next check reads it in full.
    void Invalidate() { valid_ = false; }
    bool Valid() const { return valid_; }
    // Starts over from a full reading of the directory with this identity.
    // `trackUnpacked` keeps the names that are no archive apart, for a
    // record that packs entries.
    void Reset(ScanResult&& scan, dev_t dev, ino_t ino, int64_t nowMs, bool trackUnpacked);

    // Looks at `name` again as the check's reading would (its lines
    // included); `arrived` when an event said it was created or moved in.
    void Note(int dirFd, const std::string& name, const LogConfig& config, int64_t nowMs, bool arrived);
    // An event said `name` was created or moved in.
    void Arrived(const std::string& name, int64_t nowMs);
    // Measures again what may still change (see above), as the check finds
    // it before `arriving` (the entry that started it, noted next) is in.
    void Remeasure(int dirFd, const LogConfig& config, int64_t nowMs, const std::string& arriving);
    // The name is gone from the directory.
    void Forget(const std::string& name);

    const Entries& entries() const { return entries_; }
    uint64_t total() const { return total_; }
    std::optional<uint64_t> SizeOf(const std::string& name) const;
    // The entries that are no archive, by name; only when tracked.
    const std::set<std::string>& unpacked() const { return unpacked_ ? *unpacked_ : kNone; }
    // Names the ramdump filter leaves out: counted only by the size report.
    const std::set<std::string>& filtered() const { return filtered_ ? *filtered_ : kNone; }

private:
    void Put(const std::string& name, const EntryInfo& info);
    void Remeasure(int dirFd, const std::string& name, const LogConfig& config);

    using Names = std::set<std::string>;
    static inline const Names kNone;

    Entries entries_;
    uint64_t total_ = 0;
    // Both made only where needed (a record that packs entries, a name
    // filtered out): most directories hold neither.
    std::unique_ptr<Names> unpacked_;
    std::unique_ptr<Names> filtered_;
    // Latest last; each with its arrival time.
    std::vector<std::pair<std::string, int64_t>> arrivals_;
    bool valid_ = false;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    int64_t readMs_ = 0;
};

}  // namespace logscan
}  // namespace kolto
}  // namespace velmar
