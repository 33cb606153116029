#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "modules/F2fsTrack/IoLatencyData.h"

// The daily I/O latency events: one per read-only partition, one for the
// f2fs data partition and one for the UFS host, whose statistics are then
// reset. The statistics files are kernel text laid out in sections:
//
//     [READ]                 (f2fs and UFS only; [WRITE] likewise)
//     Normal:                size classes, label = upper size in KiB
//     4 1200 300 9           label, then sum, count and peak
//     512+ 80 2 60           "+": the open-ended last class
//     Abnormal:              size classes again
//     Delay:                 latency ranges, label = range in ms
//     100 2500 10 480
namespace velmar {
namespace kolto {
namespace F2fsTrack {

// The read-only partitions looked at, in report order.
extern const std::vector<std::string> kErofsPartitions;

// The file's lines; none (and a log line) when it cannot be opened, which
// `opened`, when given, tells apart from an empty file.
std::vector<std::string> read_and_process_file(const std::string& path, bool* opened = nullptr);
// Fills both directions from a statistics text; rows before any "[READ]"
// or "[WRITE]" line belong to the read direction.
void parseRwData(const std::string& text, IoLatencyData::FsLatencyRW& out);

void reportSizeBuckets(Json::Value& event, const std::string& prefix,
                       const std::vector<IoLatencyData::SizeBucket>& buckets, bool abnormal);
void reportTimeRangeBuckets(Json::Value& event, const std::string& prefix,
                            const std::vector<IoLatencyData::TimeRangeBucket>& buckets);
// Read as "r", "ab_r" and "delay_r"; write as "w", "ab_w" and "delay_w".
void reportRwToJson(Json::Value& event, const IoLatencyData::FsLatencyRW& data);

void collect_and_report_io_latency();

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
