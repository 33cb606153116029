#define LOG_TAG "f2fsTrack"

#include "modules/F2fsTrack/F2fsTrack.h"

#include <dirent.h>
#include <sys/statfs.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sstream>
#include <type_traits>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "framework/TarnisUtil.h"
#include "modules/F2fsTrack/F2fsStatus.h"
#include "modules/F2fsTrack/IoLatencyReport.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace F2fsTrack {
namespace {

// /proc/mounts gives the device in a field the original reader took into a
// 20-byte buffer; longer names are cut the same way.
constexpr size_t kMaxDeviceChars = 19;
// dm devices may be stacked (a verity device over a crypt device); a loop
// in a planted tree must not keep us here.
constexpr int kMaxDmDepth = 8;

std::string Printable(const std::string& text) { return StringUtil::ForLog(text, 256); }

std::string Trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && isspace(static_cast<unsigned char>(text[end - 1]))) --end;
    return text.substr(begin, end - begin);
}

std::vector<std::string> Split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(text);
    while (std::getline(in, item, sep)) out.push_back(item);
    return out;
}

std::vector<std::string> Words(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string word;
    while (in >> word) out.push_back(word);
    return out;
}

// strtol/strtoul on the whole (blank-trimmed) text; `reason` says why not.
template <typename T, typename Conv>
bool ParseWhole(const std::string& text, Conv conv, T* out, const char** reason) {
    const std::string trimmed = Trim(text);
    if (trimmed.empty() || (std::is_unsigned<T>::value && trimmed[0] == '-')) {
        *reason = "invalid argument";
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const auto value = conv(trimmed.c_str(), &end, 10);
    if (end == trimmed.c_str() || *end != '\0') {
        *reason = "invalid argument";
        return false;
    }
    if (errno == ERANGE) {
        *reason = "out of range";
        return false;
    }
    *out = value;
    return true;
}

std::string DeviceFile(const std::string& device, const char* file) {
    return paths::Get(paths::kF2fsSysDir) + device + file;
}

// The one device a dm device is built on, by name; empty when the kernel
// does not say (no slaves directory, or nothing in it).
std::string DmSlave(const std::string& dm) {
    const std::string dir = paths::Get(paths::kSysBlockDir) + dm + "/slaves";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        ALOGW("No slaves of %s: %s", Printable(dm).c_str(), strerror(errno));
        return "";
    }
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
    if (names.empty()) {
        ALOGW("No slaves of %s: empty", Printable(dm).c_str());
        return "";
    }
    std::sort(names.begin(), names.end());
    if (names.size() > 1) {
        ALOGW("%s sits on %zu devices, using %s", Printable(dm).c_str(), names.size(),
              Printable(names.front()).c_str());
    }
    return names.front();
}

void SetUInt(Json::Value& event, const char* key, uint64_t value) {
    event[key] = Json::UInt64(value);
}

struct DeviceFileKey {
    const char* file;
    const char* key;
};

constexpr DeviceFileKey kPlainFiles[] = {
    {"/avg_vblocks", "avg_vblocks"},
    {"/free_segments", "free_segments"},
    {"/dirty_segments", "dirty_segments"},
};
constexpr DeviceFileKey kGcFiles[] = {
    {"/gc_background_calls", "gc_background_calls"},
    {"/gc_foreground_calls", "gc_foreground_calls"},
    {"/moved_blocks_background", "moved_blocks_background"},
    {"/moved_blocks_foreground", "moved_blocks_foreground"},
    {"/pending_discard", "pending_discard"},
};

void AddUndiscard(const std::string& device, Json::Value& event) {
    const std::string path = DeviceFile(device, "/stat/undiscard_blks");
    std::string text;
    if (!android::base::ReadFileToString(path, &text, true)) {
        ALOGE("Failed to read %s, err %s", path.c_str(), strerror(errno));
        SetUInt(event, "undiscard_blks", 0);
        return;
    }
    text = Trim(text);
    if (text.find(',') == std::string::npos) {
        SetUInt(event, "undiscard_blks", safe_stoul(text));
        return;
    }
    static const char* const kKeys[] = {"undiscard_blks", "undiscard_blks_small", "undiscard_blks_middle",
                                        "undiscard_blks_large"};
    const std::vector<std::string> fields = Split(text, ',');
    for (size_t i = 0; i < 4; ++i) {
        SetUInt(event, kKeys[i], i < fields.size() ? safe_stoul(fields[i]) : 0);
    }
}

// The value after `name` (and any blanks, ':' or '=') where `name` stands as
// a word of its own; 0 when it is absent.
uint64_t CounterAfter(const std::string& text, const std::string& name) {
    auto isWord = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; };
    for (size_t pos = text.find(name); pos != std::string::npos; pos = text.find(name, pos + 1)) {
        const size_t end = pos + name.size();
        if ((pos > 0 && isWord(text[pos - 1])) || (end < text.size() && isWord(text[end]))) continue;
        size_t at = end;
        while (at < text.size() && (isspace(static_cast<unsigned char>(text[at])) || text[at] == ':' ||
                                    text[at] == '=')) {
            ++at;
        }
        size_t digits = at;
        while (digits < text.size() && isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
        return safe_stoul(text.substr(at, digits - at));
    }
    return 0;
}

void AddArea(const std::string& area, const std::string& line, Json::Value& event) {
    const std::vector<std::string> words = Words(line);
    uint64_t n[10] = {};
    if (words.size() < 11) {
        ALOGE("Malformed hybrid_die_info %s line: '%s'", area.c_str(), Printable(line).c_str());
    } else {
        for (size_t i = 0; i < 10; ++i) {
            const unsigned long value = safe_stoul(words[i + 1]);
            // The last three are 32-bit GC counters in the kernel.
            if (i >= 7 && value > UINT32_MAX) {
                ALOGE("Failed to convert '%s' to unsigned int: out of range", Printable(words[i + 1]).c_str());
                continue;
            }
            n[i] = value;
        }
    }
    const uint64_t total = n[2];
    SetUInt(event, (area + "_free").c_str(), n[3]);
    SetUInt(event, (area + "_free_segs").c_str(), n[5]);
    SetUInt(event, (area + "_dirty_segs").c_str(), n[6]);
    SetUInt(event, (area + "_gc_count").c_str(), n[7]);
    SetUInt(event, (area + "_gc_bg_count").c_str(), n[8]);
    SetUInt(event, (area + "_gc_fg_count").c_str(), n[9]);
    // Totals are in blocks; >> 9 gives segments of 512 blocks, as the kernel counts them.
    const uint64_t segs = total >> 9;
    SetUInt(event, (area + "_dirty_ratio").c_str(), total < 512 ? 0 : n[6] * 100 / segs);
    SetUInt(event, (area + "_new_seg_ratio").c_str(), total < 512 ? 0 : n[5] * 100 / segs);
    SetUInt(event, (area + "_free_ratio").c_str(), total == 0 ? 0 : n[3] * 100 / total);
}

std::atomic<unsigned long> gReports{0};

}  // namespace

int safe_stoi(const std::string& text) {
    long value = 0;
    const char* reason = nullptr;
    if (!ParseWhole(text, strtol, &value, &reason) || value < INT_MIN || value > INT_MAX) {
        ALOGE("Failed to convert '%s' to int: %s", Printable(text).c_str(), reason ? reason : "out of range");
        return 0;
    }
    return static_cast<int>(value);
}

unsigned long safe_stoul(const std::string& text) {
    unsigned long value = 0;
    const char* reason = nullptr;
    if (!ParseWhole(text, strtoul, &value, &reason)) {
        ALOGE("Failed to convert '%s' to unsigned long: %s", Printable(text).c_str(), reason);
        return 0;
    }
    return value;
}

template <typename T>
T readFileAs(const std::string& path) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text, true)) {
        ALOGE("Failed to read %s, err %s", path.c_str(), strerror(errno));
        return 0;
    }
    const std::vector<std::string> words = Words(text);
    if (words.empty()) {
        ALOGE("Failed to read %s, err %s", path.c_str(), "empty file");
        return 0;
    }
    const unsigned long value = safe_stoul(words.front());
    if (value > std::numeric_limits<T>::max()) {
        ALOGE("Failed to read %s, err %s", path.c_str(), "value out of range");
        return 0;
    }
    return static_cast<T>(value);
}
template unsigned long readFileAs<unsigned long>(const std::string&);
template unsigned int readFileAs<unsigned int>(const std::string&);

uint64_t statfsUtil() {
    const std::string data = paths::Get(paths::kDataMountPoint);
    struct statfs st {};
    if (statfs(data.c_str(), &st) != 0) {
        ALOGE("statfs failed for %s: %s", data.c_str(), strerror(errno));
        return 0;
    }
    if (st.f_blocks == 0) return 0;
    return (static_cast<uint64_t>(st.f_blocks) - st.f_bfree) * 100 / st.f_blocks;
}

// A dm device ("dm-N", the way /dev/block/dm-N and its by-name links point)
// is resolved through the kernel's own record of what it sits on,
// /sys/block/dm-N/slaves/, following stacked dm devices down to a real
// block device. When the kernel gives no slave the dm name is kept, so the
// per-device files are still looked for under it.
std::string getDataBlockDevice(std::string* mountPoint) {
    const std::string mounts = paths::Get(paths::kProcMounts);
    std::string text;
    if (!android::base::ReadFileToString(mounts, &text, true)) {
        ALOGE("Failed to open /proc/mounts: %s", strerror(errno));
        ALOGE("Failed to get block device name");
        return "";
    }
    std::string device;
    for (const std::string& line : Split(text, '\n')) {
        const std::vector<std::string> fields = Words(line);
        if (fields.size() < 2 || fields[1] != paths::kDataMountPoint) continue;
        device = fields[0].substr(0, kMaxDeviceChars);
        if (mountPoint != nullptr) *mountPoint = fields[1];
        break;
    }
    const size_t slash = device.rfind('/');
    std::string name = slash == std::string::npos ? device : device.substr(slash + 1);
    for (int depth = 0; depth < kMaxDmDepth && name.find("dm") != std::string::npos; ++depth) {
        const std::string slave = DmSlave(name);
        if (slave.empty()) break;
        name = slave;
    }
    if (name.empty() || name == "." || name == "..") {
        ALOGE("Failed to get block device name");
        return "";
    }
    return name;
}

void addAgingRecord(const std::string& path, const std::string& key, Json::Value& event) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text)) {
        ALOGE("Failed to open file: %s", path.c_str());
        return;
    }
    std::string joined;
    std::istringstream in(text);
    std::string line;
    bool first = true;
    while (std::getline(in, line)) {
        if (!first) joined += ' ';
        joined += line;
        first = false;
    }
    if (!joined.empty()) event[key] = joined;
}

void addHybridDieInfo(const std::string& path, Json::Value& event) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text, true)) {
        ALOGE("Failed to open hybrid_die_info: %s", strerror(errno));
        for (const char* key : {"main_dirty_ratio", "main_new_seg_ratio", "main_free_ratio", "ext_dirty_ratio",
                                "ext_new_seg_ratio", "ext_free_ratio"}) {
            SetUInt(event, key, 0);
        }
        return;
    }
    std::vector<std::string> lines = Split(text, '\n');
    lines.resize(std::max<size_t>(lines.size(), 3));
    AddArea("main", lines[1], event);
    AddArea("ext", lines[2], event);
    std::string rest;
    for (size_t i = 3; i < lines.size(); ++i) rest += lines[i] + "\n";
    for (const char* name : {"main2main", "ext2ext", "main2ext", "ext2main", "unspec"}) {
        SetUInt(event, name, CounterAfter(rest, name));
    }
}

std::string writeEvent(const std::string& name, const Json::Value& event) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string head = "{\"EVENT_NAME\":" + Json::writeString(builder, Json::Value(name));
    const std::string body = event.isObject() && !event.empty() ? Json::writeString(builder, event) : "{}";
    // The writer sorts members; the consumer wants the event's name first.
    return body == "{}" ? head + "}" : head + "," + body.substr(1);
}

bool trelvoReport(const std::string& data) {
    auto ssi = TarnisUtil::GetTarnisSsiAidl();
    if (!ssi) {
        ALOGE("Failed to connect to TarnSys-System !!");
        return false;
    }
    if (!ssi->reportTrelvoEvent(kTrelvoAppId, kTrelvoSource, data, 0).isOk()) {
        ALOGE("trelvo_report: reportTrelvoEvent failed");
        return false;
    }
    ALOGI("trelvo_report: trelvo_report_nums: %lu", ++gReports);
    return true;
}

void doTrack() {
    Json::Value event(Json::objectValue);
    std::string mountPoint;
    const std::string device = getDataBlockDevice(&mountPoint);
    if (!mountPoint.empty()) event["mount_point"] = mountPoint;

    for (const auto& item : kPlainFiles) {
        SetUInt(event, item.key, readFileAs<unsigned long>(DeviceFile(device, item.file)));
    }
    SetUInt(event, "lifetime_write_GB",
            readFileAs<unsigned long>(DeviceFile(device, "/lifetime_write_kbytes")) >> 20);
    SetUInt(event, "atgc_enabled", readFileAs<unsigned int>(DeviceFile(device, "/atgc_enabled")));
    for (const auto& item : kGcFiles) {
        SetUInt(event, item.key, readFileAs<unsigned long>(DeviceFile(device, item.file)));
    }
    AddUndiscard(device, event);
    SetUInt(event, "issued_discard", readFileAs<unsigned long>(DeviceFile(device, "/stat/issued_discard")));

    const uint64_t freeSegs = event["free_segments"].asUInt64();
    const uint64_t dirtySegs = event["dirty_segments"].asUInt64();
    const uint64_t segs = freeSegs + dirtySegs;
    SetUInt(event, "freeSegRatio", segs == 0 ? 0 : freeSegs * 100 / segs);
    SetUInt(event, "statfs_Util", statfsUtil());

    addHybridDieInfo(DeviceFile(device, "/hybrid_die_info"), event);
    addAgingRecord(paths::Get(paths::kAgingMaintRecord), "idlemaint_record", event);
    addAgingRecord(paths::Get(paths::kAgingImproveRecord), "gcimprove_record", event);

    std::vector<std::string> names;
    std::vector<int> values;
    getF2fsStatusInfo(paths::Get(paths::kF2fsStatus), names, values);
    for (size_t i = 0; i < names.size() && i < values.size(); ++i) event[names[i]] = values[i];

    trelvoReport(writeEvent("StorageInfo", event));

    if (android::base::GetBoolProperty(kIostatProperty, false)) {
        collect_and_report_io_latency();
    } else {
        ALOGI("IOstat tracking disabled");
    }
}

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
