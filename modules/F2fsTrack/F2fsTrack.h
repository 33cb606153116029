#pragma once

#include <cstdint>
#include <string>

#include <json/json.h>

// The daily storage-health collection: everything here reads kernel and
// data-partition files below the root and runs on the F2fsTrack module's
// thread. Kernel text is outside input: a value that does not parse is
// logged and counts as 0, nothing here throws.
namespace velmar {
namespace kolto {
namespace F2fsTrack {

inline constexpr char kTrelvoAppId[] = "52000179047";
inline constexpr char kTrelvoSource[] = "ZelF2fsTrack";
inline constexpr char kIostatProperty[] = "persist.sys.stability.iostat";

// Decimal text to a number; on failure a log line and 0.
int safe_stoi(const std::string& text);
unsigned long safe_stoul(const std::string& text);

// The first whitespace-separated value of the file as T; 0 when the file
// cannot be read or holds no number.
template <typename T>
T readFileAs(const std::string& path);

// Used share of /data in percent; 0 when statfs fails or reports no blocks.
uint64_t statfsUtil();

// The block-device name (no directory) that /data is mounted from, with a
// device-mapper device replaced by the device it sits on; empty when none.
// `mountPoint` receives the mount directory that matched.
std::string getDataBlockDevice(std::string* mountPoint);

// Joins the lines of a record file with single blanks under `key`.
void addAgingRecord(const std::string& path, const std::string& key, Json::Value& event);

// The main and extension area keys and the migration counters.
void addHybridDieInfo(const std::string& path, Json::Value& event);

// The event text as sent: `name` as "EVENT_NAME", the first member, then
// the members of `event` in the writer's order, on one line.
std::string writeEvent(const std::string& name, const Json::Value& event);

// Sends one analytics event through the daemon's event service; true when
// the service took it.
bool trelvoReport(const std::string& data);

// One daily run: the StorageInfo event, then the I/O latency report when
// it is enabled.
void doTrack();

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
