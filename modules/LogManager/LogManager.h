#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "framework/Intent.h"
#include "framework/ModuleBase.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisMessage.h"
#include "modules/LogManager/LogConfig.h"
#include "modules/LogManager/LogDirScan.h"

namespace velmar {
namespace kolto {

class LogMgrBroadcastReceiver;
class LogMgrFileEventListener;

// Keeps the configured log directories within their count, size and age
// limits, moving what it removes to the A/B reuse partition when that may
// take logs, and packs old entries into zip archives.
//
// Everything that touches the configuration, the directories or the size
// map runs on the module's own thread; the listener's and the broadcast
// manager's threads only post there. The dump runs on a binder thread and
// reads the map under `stateLock_` instead of waiting for that thread, so a
// long cleaning never holds a dump (which holds the module list) up.
//
// Paths held here (the size map, the records, the watches) are device paths;
// they are mapped below the sandbox root only where the disk is touched.
//
// A check does not read its directory anew: what is known of each one
// (logscan::LogDirState) follows the file events, and the directory is read
// in full only at its first check, after a change of the configuration, a
// new watch or lost events, and every ten minutes. So a new entry costs the
// same in a directory of a hundred entries as in one of a hundred thousand.
class LogManager : public ModuleBase {
public:
    LogManager();
    ~LogManager() override;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

    // Listener thread.
    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& devicePath);
    // Listener thread: the kernel dropped events, of any directory.
    void OnEventsLost();
    // Broadcast manager thread.
    void OnBroadcast(Intent intent);

    // Packs the entry at `devicePath` into `devicePath`.zip, then removes the
    // entry. Needs no running module.
    static bool Compress(const std::string& devicePath);
    // The same for the entry `name` of the directory open as `dirFd`, its
    // archive entries named by where it stands on the device, `devicePath`.
    static bool CompressAt(int dirFd, const std::string& name, const std::string& devicePath);

    static constexpr char kAlarmEventName[] = "logMonitor";
    // IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_ONLYDIR
    static constexpr uint32_t kWatchMask = 0x10007C0;

    // Reads every directory in full at every check, as if nothing were
    // known of it: what the kept state decides must be the same.
    void MeasureFullyForTesting(bool always) { measureFully_ = always; }

private:
    void Post(std::function<void()> task);
    TarnisMessageRef PostDelayed(std::function<void()> task, long delayMs);
    void PostInOrder(std::function<void()> task);

    bool initConfig();
    void CheckLogDirReady();
    void CheckSdcardReady();
    void HandleBroadcast(const Intent& intent);
    void AppendConfigs(std::vector<LogConfig> added);
    void watchByConfigs(const std::vector<LogConfig>& configs);
    // `arrived` is the entry whose creation started the check. True when
    // the directory's kept state is up to date afterwards without a reading
    // in full (the size map may then take its total).
    bool CheckAndClean(const std::string& devicePath, const std::optional<std::string>& arrived = std::nullopt);
    // Brings `state`, what is known of the directory, up to date for a
    // check; false when the directory could not be read.
    bool MeasureForCheck(const std::string& devicePath, int dirFd, const LogConfig& config,
                         const std::optional<std::string>& arrived, logscan::LogDirState& state, bool* full);
    // An event that only changes what is known: nothing is checked.
    void NoteEvent(const std::string& devicePath, const std::string& name, bool gone);
    enum class Removal { kRemoved, kVanished, kFailed };
    // Removes the entry `devicePath` names from the directory open as
    // `dirFd`; `*total` drops by what it held. `known`, when given, tells
    // what an entry that vanished meanwhile counted for.
    Removal DeleteFileUpdateDirConfig(int dirFd, const std::string& devicePath, uint64_t* total,
                                      std::optional<uint64_t> known);
    uint64_t getDirTotalSize(const std::string& devicePath, std::vector<std::string>& names, const LogConfig& config);
    // `fromState`: the total kept for the directory is current; otherwise
    // the directory is read in full, as it always was.
    void updatePathSizeMap(const std::string& devicePath, const LogConfig& config, bool fromState);
    // Packs the entries of `state` past `after` (those before it could not
    // be removed in this check).
    void CompressEntries(const std::string& devicePath, int dirFd, const LogConfig& config,
                         logscan::LogDirState& state, const std::string& after);
    // What a successful packing of `name` changes in what is known.
    static void NotePacked(logscan::LogDirState& state, const LogConfig& config, int dirFd, const std::string& name);
    // Opens the entry's directory below its root again: for a compression
    // that runs later than the check that chose it.
    bool CompressEntry(const std::string& deviceFullPath);
    // The delayed compression of an entry, when its time comes or when a
    // newer entry brings it forward (by value: the pending path is cleared).
    void RunDelayedCompress(std::string deviceFullPath);
    void ReportSizeCleaning(const std::string& devicePath, int dirFd, const logscan::LogDirState& state,
                            uint64_t before, bool reuseOpen, int64_t cleared, int64_t moved);
    bool IsReuseOpen(const char* op);
    std::optional<LogConfig> FindConfig(const std::string& devicePath);

    std::vector<LogConfig> configs_;
    std::map<std::string, uint64_t> pathSizeMap_;
    // Guards configs_ and pathSizeMap_ against the dump: the module's thread
    // writes under it and reads without it.
    std::mutex stateLock_;

    std::mutex handlerLock_;
    std::unique_ptr<TarnisHandler> handler_;

    TarnisMessageRef pendingCompressMsg_;
    std::string pendingCompressPath_;  // device path
    // The directories whose first check has run (and swept what a killed
    // compression left there).
    std::set<std::string> swept_;
    // What is known of each watched directory that had a check since its
    // watch was added; the module's thread only.
    std::map<std::string, logscan::LogDirState> dirStates_;
    bool measureFully_ = false;

    std::unique_ptr<LogMgrFileEventListener> listener_;
    std::unique_ptr<LogMgrBroadcastReceiver> receiver_;
    bool vendorReady_ = false;
};

}  // namespace kolto
}  // namespace velmar
