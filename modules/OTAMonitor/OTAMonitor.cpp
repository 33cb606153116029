#define LOG_TAG "OTAMonitor"

#include "modules/OTAMonitor/OTAMonitor.h"
#include "utils/ScopedDir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/BlackBoxPartition.h"
#include "utils/Paths.h"
#include "utils/PropertyWait.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace tarnis {

namespace bb = kolto::blackbox;
namespace paths = kolto::paths;
using kolto::StringUtil;
using android::base::GetProperty;
using android::base::unique_fd;

namespace {

constexpr char kStatusProperty[] = "persist.sys.memory.snapshot.otastatus";
constexpr char kEnableProperty[] = "persist.sys.stability.otamonitor.enable";
constexpr char kBuildProperty[] = "ro.build.version.incremental";
constexpr char kSlotProperty[] = "ro.boot.slot_suffix";
constexpr uint32_t kVersionCodeV2 = 8192;
constexpr uint32_t kVersionCodeV3 = 12288;

// The partition opened with `flags`; not valid, after `func`'s line saying
// why, when it cannot be opened.
bb::Partition OpenZone(int flags, const char* func) {
    bb::Partition partition = bb::Partition::Open(flags);
    if (!partition.ok()) ALOGE("%s: open file %s failed\n", func, paths::Get(paths::kBlackbox).c_str());
    return partition;
}

// Copies `text` into a NUL-terminated field, cut to what it holds.
template <size_t N>
void SetField(char (&field)[N], const std::string& text) {
    memset(field, 0, N);
    memcpy(field, text.data(), std::min(text.size(), N - 1));
}

// A field as text, stopping at its end even when a damaged zone left no NUL.
template <size_t N>
std::string Field(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}

std::string TrimLineEnd(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

// The bracketed time of the first line of `file` holding `keyword`; empty
// with the caller's failure lines when there is none.
std::string SearchTime(const char* func, const std::string& file, const char* keyword, const char* noLine,
                       const char* noTime, const char* failed, const char* found) {
    char line[kOtaLineBytes];
    if (!search_keyword_line_in_file(file.c_str(), line, keyword)) {
        ALOGE(noLine, func, StringUtil::ForLog(file).c_str());
        ALOGI("%s", failed);
        return "";
    }
    std::unique_ptr<char[]> time = extract_ota_time(line);
    if (time == nullptr) {
        ALOGE(noTime, func, StringUtil::ForLog(file).c_str());
        ALOGI("%s", failed);
        return "";
    }
    ALOGI(found, time.get());
    return time.get();
}

std::string SearchPackageName(const std::string& file) {
    static constexpr char kFunc[] = "search_ota_package_name_in_ota_log";
    char line[kOtaLineBytes];
    if (!search_keyword_line_in_file(file.c_str(), line, "initial url:")) {
        ALOGE("%s: cannot find ota package name in file: %s", kFunc, StringUtil::ForLog(file).c_str());
        ALOGI("failed to search ota package name in ota log");
        return "";
    }
    const std::string name = extract_ota_package_name(line);
    if (name.empty()) {
        ALOGE("%s: cannot find the url in file: %s", kFunc, StringUtil::ForLog(file).c_str());
        ALOGI("failed to search ota package name in ota log");
        return "";
    }
    ALOGI("ota_package_name: %s", StringUtil::ForLog(name).c_str());
    return name;
}

}  // namespace

bb::OtaRecordZone& ota_record_zone() {
    static bb::OtaRecordZone zone{};
    return zone;
}

int get_black_box_version() {
    return bb::GetBlackBoxVersion(LOG_TAG);
}

int check_black_box_ota_record_zone() {
    static constexpr char kFunc[] = "check_black_box_ota_record_zone";
    bb::OtaRecordZone& zone = ota_record_zone();
    const bb::Partition partition = OpenZone(O_RDWR, kFunc);
    if (!partition.ok()) return -1;
    if (!partition.Read(bb::kOtaZoneOffset, &zone)) {
        ALOGE("%s: read ota record zone failed", kFunc);
        return -1;
    }
    if (zone.magic == bb::kOtaMagic) {
        // A zone that names a slot or count outside its ten records is not
        // recorded into: its bytes stay as they are for whoever reads them.
        if (zone.nextIndex >= static_cast<uint32_t>(bb::kOtaRecords) ||
            zone.updateCount > static_cast<uint32_t>(bb::kOtaRecords)) {
            ALOGE("%s: ota record zone is damaged (next_index %u, update_count %u), leave it as it is", kFunc,
                  zone.nextIndex, zone.updateCount);
            return -1;
        }
        return 0;
    }
    ALOGE("%s: ota record zone magic is wrong", kFunc);
    const int version = get_black_box_version();
    if (version == 1) {
        ALOGI("blackbox v1 is not support ota record zone, return directly!");
        return -1;
    }
    if (version == 2) {
        ALOGI("blackbox v2");
        zone.versionCode = kVersionCodeV2;
    } else {
        ALOGI("blackbox v3");
        zone.versionCode = kVersionCodeV3;
    }
    zone.magic = bb::kOtaMagic;
    const size_t keep = offsetof(bb::OtaRecordZone, nextIndex);
    memset(reinterpret_cast<char*>(&zone) + keep, 0, sizeof(zone) - keep);
    return write_ota_record_zone_to_black_box() < 0 ? -1 : 0;
}

int write_ota_record_zone_to_black_box() {
    static constexpr char kFunc[] = "write_ota_record_zone_to_black_box";
    const bb::Partition partition = OpenZone(O_WRONLY, kFunc);
    if (!partition.ok()) return -1;
    if (!partition.Write(bb::kOtaZoneOffset, ota_record_zone()) || !partition.Sync()) {
        ALOGE("%s: write ota record zone failed", kFunc);
        return -1;
    }
    return 0;
}

int process_directory(const char* path, std::vector<OtaLogFile>* files) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path), closedir);
    if (dir == nullptr) {
        ALOGE("Error opening directory '%s': %s", path, strerror(errno));
        return -1;
    }
    while (const struct dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        const std::string file = std::string(path) + "/" + entry->d_name;
        struct stat st;
        // A link is not one of the engine's logs, whatever it points at.
        if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ALOGE("Error stating file '%s': %s", StringUtil::ForLog(file).c_str(), strerror(errno));
            continue;
        }
        if (!S_ISREG(st.st_mode)) continue;
        ALOGI("file path: %s", StringUtil::ForLog(file).c_str());
        files->push_back({file, st.st_mtim});
    }
    return 0;
}

bool compare_files(const OtaLogFile& a, const OtaLogFile& b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
    return a.mtime.tv_nsec > b.mtime.tv_nsec;
}

bool search_keyword_line_in_file(const char* path, char* line, const char* keyword) {
    static constexpr char kFunc[] = "search_keyword_line_in_file";
    ALOGI("filename: %s, keyword: %s", StringUtil::ForLog(path).c_str(), keyword);
    // O_NONBLOCK: a FIFO planted among the logs must not hold the monitor.
    unique_fd fd(TEMP_FAILURE_RETRY(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    struct stat st;
    FILE* file = nullptr;
    if (fd.ok() && fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode)) file = kolto::AdoptFile(fd, "re");
    if (file == nullptr) {
        ALOGE("%s: open file %s failed", kFunc, StringUtil::ForLog(path).c_str());
        return false;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> stream(file, fclose);
    return search_keyword_line_in_stream(stream.get(), line, keyword);
}

bool search_keyword_line_in_stream(FILE* stream, char* line, const char* keyword) {
    static constexpr char kFunc[] = "search_keyword_line_in_file";
    while (fgets(line, static_cast<int>(kOtaLineBytes), stream) != nullptr) {
        if (strstr(line, keyword) != nullptr) {
            ALOGI("%s: found the line: %s", kFunc, StringUtil::ForLog(line).c_str());
            return true;
        }
    }
    line[0] = '\0';
    return false;
}

std::string extract_ota_package_name(const char* line) {
    const std::string text = TrimLineEnd(line);
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos || slash + 1 == text.size()) return "";
    return text.substr(slash + 1, sizeof(bb::OtaRecordZone::packageName[0]) - 1);
}

std::unique_ptr<char[]> extract_ota_time(const char* line) {
    const char* start = strchr(line, '[');
    if (start == nullptr) {
        ALOGE("cannot find the start flag of timestamp");
        return nullptr;
    }
    const char* end = strchr(start + 1, ']');
    if (end == nullptr) {
        ALOGE("cannot find the end flag of timestamp");
        return nullptr;
    }
    const size_t len = std::min(static_cast<size_t>(end - start - 1), kOtaTimeChars);
    std::unique_ptr<char[]> out(new char[len + 1]);
    memcpy(out.get(), start + 1, len);
    out[len] = '\0';
    return out;
}

void save_update_metrics_to_black_box_on_start() {
    ALOGI("ota status is start");
    if (check_black_box_ota_record_zone() != 0) return;
    bb::OtaRecordZone& zone = ota_record_zone();
    const uint32_t i = zone.nextIndex;
    // Only what is known at the start; a reused slot's other fields keep the
    // older update's values until this one completes and replaces them all.
    zone.isDebuggable[i] = static_cast<uint8_t>(atoi(GetProperty("ro.debuggable", "0").c_str()));
    SetField(zone.srcSlot[i], GetProperty(kSlotProperty, ""));
    SetField(zone.srcBuild[i], GetProperty(kBuildProperty, ""));
    ALOGI("%s: debuggable: %d, src_slot: %s, src_build: %s", __func__, zone.isDebuggable[i],
          Field(zone.srcSlot[i]).c_str(), Field(zone.srcBuild[i]).c_str());
    if (write_ota_record_zone_to_black_box() < 0) {
        ALOGE("%s: write ota record zone to blackbox failed", __func__);
    }
}

void save_update_metrics_to_black_box_after_merged() {
    ALOGI("ota status is merged, save ota info to blackbox");
    if (check_black_box_ota_record_zone() != 0) return;
    std::vector<OtaLogFile> files;
    process_directory(paths::Get(paths::kUpdateEngineLogDir).c_str(), &files);
    std::string startTime, packageName, endTime, mergedTime;
    if (files.empty()) {
        ALOGI("No update_engine_log files found!");
    } else if (files.size() == 1) {
        // The times pair two boots: the update's own (start, package, end)
        // and the first boot of the new build (the merge). A lone log
        // belongs to one of them, and which one cannot be told from the
        // files kept, so the record gets no times and no package rather than
        // half of a timeline that may be an older update's.
        ALOGI("Only one update_engine_log file found!");
    } else {
        std::sort(files.begin(), files.end(), compare_files);
        ALOGI("file[0]: %s", files[0].path.c_str());
        ALOGI("file[1]: %s", files[1].path.c_str());
        startTime = SearchTime("search_ota_start_time_in_ota_log", files[1].path, "Update Boot Timestamp Start",
                               "%s: cannot find ota start time line in file: %s",
                               "%s: cannot find ota start time in file: %s",
                               "failed to search ota start time in ota log", "ota_start_time: %s");
        packageName = SearchPackageName(files[1].path);
        endTime =
            SearchTime("search_ota_end_time_in_ota_log", files[1].path, "Updated Marker",
                       "%s: cannot find ota end time line in file: %s", "%s: cannot find ota end time in file: %s",
                       "failed to search ota end time in ota log", "ota_end_time: %s");
        mergedTime = SearchTime("search_ota_merged_time_in_ota_log", files[0].path,
                                "Merge finished with state MergeCompleted",
                                "%s: cannot find ota merged time line in path: %s",
                                "%s: cannot find ota merged time in file: %s",
                                "failed to search ota merged time in ota log", "ota_merged_time: %s");
    }
    bb::OtaRecordZone& zone = ota_record_zone();
    const uint32_t i = zone.nextIndex;
    SetField(zone.startTime[i], startTime);
    SetField(zone.packageName[i], packageName);
    SetField(zone.endTime[i], endTime);
    SetField(zone.mergedTime[i], mergedTime);
    SetField(zone.tgtBuild[i], GetProperty(kBuildProperty, ""));
    SetField(zone.tgtSlot[i], GetProperty(kSlotProperty, ""));
    zone.nextIndex = (zone.nextIndex + 1) % bb::kOtaRecords;
    zone.updateCount = std::min<uint32_t>(zone.updateCount + 1, bb::kOtaRecords);
    ALOGI("%s: next_index: %d, tgt_slot: %s, tgt_build: %s", __func__, static_cast<int>(zone.nextIndex),
          Field(zone.tgtSlot[i]).c_str(), Field(zone.tgtBuild[i]).c_str());
    if (write_ota_record_zone_to_black_box() < 0) {
        ALOGE("%s: write ota record zone to blackbox failed", __func__);
    }
}

void dump_ota_record_zone() {
    const bb::OtaRecordZone& zone = ota_record_zone();
    ALOGI("magic: 0x%lx", static_cast<unsigned long>(zone.magic));
    ALOGI("next_index: %u", zone.nextIndex);
    ALOGI("update_count: %u", zone.updateCount);
    const size_t count = std::min<size_t>(zone.updateCount, bb::kOtaRecords);
    for (size_t i = 0; i < count; ++i) {
        ALOGI("index: %zu", i);
        ALOGI("is_debuggable: %u", zone.isDebuggable[i]);
        ALOGI("package_name: %s", Field(zone.packageName[i]).c_str());
        ALOGI("src_build: %s", Field(zone.srcBuild[i]).c_str());
        ALOGI("tgt_build: %s", Field(zone.tgtBuild[i]).c_str());
        ALOGI("src_slot: %s", Field(zone.srcSlot[i]).c_str());
        ALOGI("tgt_slot: %s", Field(zone.tgtSlot[i]).c_str());
        ALOGI("start_time: %s", Field(zone.startTime[i]).c_str());
        ALOGI("end_time: %s", Field(zone.endTime[i]).c_str());
        ALOGI("merged_time: %s", Field(zone.mergedTime[i]).c_str());
    }
}

bool OtaMonitorControl::WaitForProperty(const std::string& key, const std::string& value) const {
    return kolto::WaitForPropertyUnlessStopped(key, value, stop_.flag());
}

void ota_monitor_func(OtaMonitorControl* control) {
    ALOGI("load OTAMonitorModule");
    if (!control->WaitForProperty("sys.boot_completed", "1")) return;
    struct stat st;
    if (lstat(paths::Get(paths::kBlackbox).c_str(), &st) != 0) {
        ALOGE("%s: blackbox partition is not existed, return directly!", __func__);
        return;
    }
    if (get_black_box_version() == 1) {
        ALOGE("%s: blackbox v1 is not support ota record zone, return directly!", __func__);
        return;
    }
    while (!control->StopRequested()) {
        if (GetProperty(kEnableProperty, "") == "false") {
            ALOGI("%s: ota monitor is disabled, return directly!", __func__);
            return;
        }
        const std::string awaited = GetProperty(kStatusProperty, "") == "ota_start" ? "ota_complete" : "ota_start";
        ALOGI("%s: Waiting for ota_status: %s", __func__, StringUtil::ForLog(awaited).c_str());
        if (!control->WaitForProperty(kStatusProperty, awaited)) return;
        if (awaited == "ota_start") {
            save_update_metrics_to_black_box_on_start();
        } else {
            save_update_metrics_to_black_box_after_merged();
        }
        dump_ota_record_zone();
        control->CountPass();
    }
}

}  // namespace tarnis
}  // namespace velmar
