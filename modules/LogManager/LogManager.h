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
class LogManager : public ModuleBase {
public:
    LogManager();
    ~LogManager() override;

    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

    // Listener thread.
    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& devicePath);
    // Broadcast manager thread.
    void OnBroadcast(Intent intent);

    // Packs the entry at `devicePath` into `devicePath`.zip, then removes the
    // entry. Needs no running module.
    static bool Compress(const std::string& devicePath);
    // The same for the entry `name` of the directory open as `dirFd`, its
    // archive entries named by where it stands on the device, `devicePath`.
    static bool CompressAt(int dirFd, const std::string& name, const std::string& devicePath);

    static constexpr char kAlarmEventName[] = "logMonitor";
    static constexpr uint32_t kWatchMask = 0x1000500;  // IN_CREATE | IN_DELETE_SELF | IN_ONLYDIR

private:
    void Post(std::function<void()> task);
    TarnisMessageRef PostDelayed(std::function<void()> task, long delayMs);

    bool initConfig();
    void CheckLogDirReady();
    void CheckSdcardReady();
    void HandleBroadcast(const Intent& intent);
    void AppendConfigs(std::vector<LogConfig> added);
    void watchByConfigs(const std::vector<LogConfig>& configs);
    void CheckAndClean(const std::string& devicePath);
    // Removes the entry `devicePath` names from the directory open as
    // `dirFd`. `sizes`, when given, tells what an entry that vanished
    // meanwhile counted for.
    bool DeleteFileUpdateDirConfig(int dirFd, const std::string& devicePath, uint64_t* total,
                                   std::vector<std::string>& names,
                                   const std::map<std::string, uint64_t>* sizes = nullptr);
    uint64_t getDirTotalSize(const std::string& devicePath, std::vector<std::string>& names, const LogConfig& config);
    void updatePathSizeMap(const std::string& devicePath, const LogConfig& config);
    void CompressEntries(const std::string& devicePath, int dirFd, const LogConfig& config,
                         const std::vector<std::string>& names);
    // Opens the entry's directory below its root again: for a compression
    // that runs later than the check that chose it.
    bool CompressEntry(const std::string& deviceFullPath);
    // The delayed compression of an entry, when its time comes or when a
    // newer entry brings it forward (by value: the pending path is cleared).
    void RunDelayedCompress(std::string deviceFullPath);
    void ReportSizeCleaning(const std::string& devicePath, int dirFd, uint64_t before, bool reuseOpen,
                            int64_t cleared, int64_t moved);
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

    std::unique_ptr<LogMgrFileEventListener> listener_;
    std::unique_ptr<LogMgrBroadcastReceiver> receiver_;
    bool vendorReady_ = false;
};

}  // namespace kolto
}  // namespace velmar
