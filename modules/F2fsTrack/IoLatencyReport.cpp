#define LOG_TAG "f2fsTrack"

#include "modules/F2fsTrack/IoLatencyReport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/F2fsTrack/F2fsTrack.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace F2fsTrack {

const std::vector<std::string> kErofsPartitions = {
    "root",        "system",      "system_ext", "product",  "vendor", "odm",
    "zel_ext",     "vendor_dlkm", "system_dlkm", "odm_dlkm", "cust",
};

namespace {

enum class Section { kNone, kNormal, kAbnormal, kDelay };

std::string Printable(const std::string& text) { return StringUtil::ForLog(text, 256); }

// A device name from a property becomes one path component.
bool IsComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// Opens `relative` below the directory `base` one component at a time,
// following no link on the way, so a planted link cannot take a read or the
// reset outside the tree. errno is set on failure (EINVAL for "." or "..").
android::base::unique_fd OpenBelow(const std::string& base, const std::string& relative, int flags) {
    android::base::unique_fd dir(open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) return {};
    std::vector<std::string> parts;
    std::istringstream in(relative);
    std::string part;
    while (std::getline(in, part, '/')) {
        if (part.empty()) continue;
        if (part == "." || part == "..") {
            errno = EINVAL;
            return {};
        }
        parts.push_back(part);
    }
    if (parts.empty()) {
        errno = EINVAL;
        return {};
    }
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        android::base::unique_fd next(
            openat(dir.get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (next.get() < 0) return {};
        dir = std::move(next);
    }
    return android::base::unique_fd(openat(dir.get(), parts.back().c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
}

// One "label sum count peak" row; false (logged) when it is not one.
bool ParseRow(const std::string& line, std::string* label, uint64_t numbers[3]) {
    std::istringstream in(line);
    std::vector<std::string> words;
    std::string word;
    while (in >> word) words.push_back(word);
    if (words.size() < 4) {
        ALOGE("Malformed latency row: '%s'", Printable(line).c_str());
        return false;
    }
    *label = words[0];
    for (int i = 0; i < 3; ++i) numbers[i] = safe_stoul(words[i + 1]);
    return true;
}

void ParseLines(const std::vector<std::string>& lines, IoLatencyData::FsLatencyRW& out) {
    IoLatencyData::FsLatency* current = &out.read;
    Section section = Section::kNone;
    for (const std::string& line : lines) {
        if (line.find("[READ]") != std::string::npos) {
            current = &out.read;
            section = Section::kNone;
            continue;
        }
        if (line.find("[WRITE]") != std::string::npos) {
            current = &out.write;
            section = Section::kNone;
            continue;
        }
        if (line.find("Abnormal:") != std::string::npos) {
            section = Section::kAbnormal;
            continue;
        }
        if (line.find("Normal:") != std::string::npos) {
            section = Section::kNormal;
            continue;
        }
        if (line.find("Delay:") != std::string::npos) {
            section = Section::kDelay;
            continue;
        }
        if (section == Section::kNone || line.find_first_not_of(" \t\r") == std::string::npos) continue;
        std::string label;
        uint64_t n[3] = {};
        if (!ParseRow(line, &label, n)) continue;
        if (section == Section::kDelay) {
            current->delay.push_back({label, n[0], n[1], n[2]});
            continue;
        }
        std::string number = label;
        if (!number.empty() && number.back() == '+') number.pop_back();
        IoLatencyData::SizeBucket bucket{label, n[0], n[1], n[2], safe_stoul(number)};
        (section == Section::kNormal ? current->normal : current->abnormal).push_back(bucket);
    }
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

Json::Value StartEvent() {
    Json::Value event(Json::objectValue);
    event["statfs_Util"] = Json::UInt64(statfsUtil());
    return event;
}

void ReportErofs(const std::string& partition) {
    const std::string device = android::base::GetProperty("dev.mnt.dev." + partition, "");
    if (device.empty()) return;
    if (!IsComponent(device)) {
        ALOGE("Bad device name for %s: '%s'", partition.c_str(), Printable(device).c_str());
        return;
    }
    const std::string path = paths::Get(paths::kErofsSysDir) + device + "/iostat_daily_latency";
    Json::Value event = StartEvent();
    IoLatencyData::FsLatencyRW data;
    // A source without its statistics file sends nothing.
    bool opened = false;
    const std::vector<std::string> lines = read_and_process_file(path, &opened);
    if (!opened) return;
    // A read-only partition has the read direction only.
    ParseLines(lines, data);
    reportSizeBuckets(event, "r", data.read.normal, false);
    reportSizeBuckets(event, "ab_r", data.read.abnormal, true);
    reportTimeRangeBuckets(event, "delay_r", data.read.delay);
    trelvoReport(writeEvent(partition + "_io_latency", event));
}

void ReportF2fs() {
    const std::string device = android::base::GetProperty("dev.mnt.dev.data", "");
    if (device.empty()) {
        ALOGI("dev.mnt.dev.data is empty");
        return;
    }
    if (!IsComponent(device)) {
        ALOGE("Bad device name for data: '%s'", Printable(device).c_str());
        return;
    }
    const std::string path = paths::Get(paths::kF2fsSysDir) + device + "/iostat_daily_latency";
    Json::Value event = StartEvent();
    std::string text;
    bool opened = false;
    for (const std::string& line : read_and_process_file(path, &opened)) text += line + "\n";
    if (!opened) return;  // a source without its statistics file sends nothing
    IoLatencyData::FsLatencyRW data;
    parseRwData(text, data);
    reportRwToJson(event, data);
    trelvoReport(writeEvent("f2fs_io_latency", event));
}

void ReportUfs() {
    const std::string bootDevices = android::base::GetProperty("ro.boot.boot_devices", "");
    if (bootDevices.empty()) {
        ALOGE("ro.boot.boot_devices is empty");
        return;
    }
    // Several boot devices may be listed; the first is the one booted from.
    std::string device = bootDevices.substr(0, bootDevices.find(','));
    const size_t begin = device.find_first_not_of(" \t");
    device = begin == std::string::npos ? "" : device.substr(begin, device.find_last_not_of(" \t") - begin + 1);
    if (device.empty()) {
        ALOGW("Selected device is empty");
        return;
    }
    const std::string base = paths::Get(paths::kPlatformDevicesDir);
    const std::string relative = device + "/ufs_monitor/monitor_daily_cmd_lat";
    const std::string path = base + relative;
    android::base::unique_fd fd = OpenBelow(base, relative, O_RDONLY);
    if (fd.get() < 0) {
        ALOGE("Failed to get ufs monitor path: %s", (Printable(path) + ": " + strerror(errno)).c_str());
        return;
    }
    std::string text;
    if (!android::base::ReadFdToString(fd.get(), &text)) {
        ALOGE("Failed to open file: %s, error: %s", path.c_str(), strerror(errno));
        text.clear();
    }
    fd.reset();
    Json::Value event = StartEvent();
    IoLatencyData::FsLatencyRW data;
    parseRwData(text, data);
    reportRwToJson(event, data);
    trelvoReport(writeEvent("ufs_io_latency", event));

    android::base::unique_fd reset = OpenBelow(base, relative, O_WRONLY | O_TRUNC);
    if (reset.get() < 0) {
        ALOGE("Failed to open %s for reset: %s", path.c_str(), strerror(errno));
        return;
    }
    if (!android::base::WriteStringToFd("reset", reset.get())) {
        ALOGE("Failed to reset %s: %s", path.c_str(), strerror(errno));
    }
}

}  // namespace

std::vector<std::string> read_and_process_file(const std::string& path, bool* opened) {
    std::string text;
    const bool read = android::base::ReadFileToString(path, &text);
    if (opened != nullptr) *opened = read;
    if (!read) {
        ALOGE("Failed to open file: %s, error: %s", path.c_str(), strerror(errno));
        return {};
    }
    return Lines(text);
}

void parseRwData(const std::string& text, IoLatencyData::FsLatencyRW& out) { ParseLines(Lines(text), out); }

void reportSizeBuckets(Json::Value& event, const std::string& prefix,
                       const std::vector<IoLatencyData::SizeBucket>& buckets, bool abnormal) {
    for (const auto& b : buckets) {
        const std::string key = prefix + "_" + b.label;
        event[key + "k_sum"] = Json::UInt64(b.sum);
        event[key + "k_cnt"] = Json::UInt64(b.count);
        event[key + "k_peak"] = Json::UInt64(b.peak);
        event[key + "k_thres"] = Json::UInt64(b.threshold);
    }
    if (!buckets.empty()) {
        ALOGD("%s: %zu %s size classes", prefix.c_str(), buckets.size(), abnormal ? "abnormal" : "normal");
    }
}

void reportTimeRangeBuckets(Json::Value& event, const std::string& prefix,
                            const std::vector<IoLatencyData::TimeRangeBucket>& buckets) {
    for (const auto& b : buckets) {
        const std::string key = prefix + "_" + b.label;
        event[key + "ms_sum"] = Json::UInt64(b.sum);
        event[key + "ms_cnt"] = Json::UInt64(b.count);
        event[key + "ms_peak"] = Json::UInt64(b.peak);
    }
}

void reportRwToJson(Json::Value& event, const IoLatencyData::FsLatencyRW& data) {
    reportSizeBuckets(event, "r", data.read.normal, false);
    reportSizeBuckets(event, "ab_r", data.read.abnormal, true);
    reportTimeRangeBuckets(event, "delay_r", data.read.delay);
    reportSizeBuckets(event, "w", data.write.normal, false);
    reportSizeBuckets(event, "ab_w", data.write.abnormal, true);
    reportTimeRangeBuckets(event, "delay_w", data.write.delay);
}

void collect_and_report_io_latency() {
    for (const std::string& partition : kErofsPartitions) ReportErofs(partition);
    ReportF2fs();
    ReportUfs();
}

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
