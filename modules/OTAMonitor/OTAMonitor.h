#pragma once

#include <cstdio>
#include <ctime>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "utils/BlackBoxLayout.h"
#include "utils/StopSignal.h"

// The history of system updates in the black-box partition's OTA record
// zone: a record is begun when the update client reports "ota_start" and
// completed with the update engine's times and package name once it reports
// "ota_complete" after the merge.
namespace velmar {
namespace tarnis {

inline constexpr size_t kOtaLineBytes = 2048;
inline constexpr size_t kOtaTimeChars = 31;

// One update-engine log with its modification time.
struct OtaLogFile {
    std::string path;
    struct timespec mtime;
};

// The zone as last loaded or written (one process-wide buffer).
kolto::blackbox::OtaRecordZone& ota_record_zone();

int get_black_box_version();
// Loads the zone, initialising it on a partition of version 2 or 3 when its
// magic is wrong. 0 when the zone in memory may be recorded into, -1 when not.
int check_black_box_ota_record_zone();
// Writes the zone; negative on failure.
int write_ota_record_zone_to_black_box();

// Adds every regular file of directory `path` to `files`; -1 when the
// directory cannot be read.
int process_directory(const char* path, std::vector<OtaLogFile>* files);
// Newest first.
bool compare_files(const OtaLogFile& a, const OtaLogFile& b);
// The first line of `path` holding `keyword`, copied into `line` (kOtaLineBytes).
bool search_keyword_line_in_file(const char* path, char* line, const char* keyword);
// The same over an open stream, from where it stands.
bool search_keyword_line_in_stream(FILE* stream, char* line, const char* keyword);
// The text between the first "[" of `line` and the next "]", at most
// kOtaTimeChars characters; null when either bracket is missing.
std::unique_ptr<char[]> extract_ota_time(const char* line);
// The package name of an "initial url:" line: the text after its last "/",
// line end cut, at most the record's 127 characters; empty when there is none.
std::string extract_ota_package_name(const char* line);

// The two passes of an update and the zone's listing in the log.
void save_update_metrics_to_black_box_on_start();
void save_update_metrics_to_black_box_after_merged();
void dump_ota_record_zone();

// What the monitor's waits end on (its worker's stop) and what it has done.
class OtaMonitorControl {
public:
    explicit OtaMonitorControl(kolto::StopSignal& stop) : stop_(stop) {}
    bool StopRequested() const { return stop_.Requested(); }
    // Waits without limit for property `key` to hold `value`; false once
    // stopped.
    bool WaitForProperty(const std::string& key, const std::string& value) const;
    int passes() const { return passes_.load(); }
    void CountPass() { ++passes_; }

private:
    kolto::StopSignal& stop_;
    std::atomic<int> passes_{0};
};

// The whole monitor: boot completion, the partition checks, then one pass
// per reported status until disabled or stopped.
void ota_monitor_func(OtaMonitorControl* control);

}  // namespace tarnis
}  // namespace velmar
