#pragma once

#include <sys/statfs.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace velmar {
namespace tarnis {

// The cycle interval in minutes, from its property; 20 when the value is not
// a plain decimal number.
size_t getTimerValue();

// Keeps the small rescue partition within its limits: old core dumps go,
// each known directory is held to its size, and while the partition stays
// 90 % full or more, files are deleted in three levels, each sparing fewer.
// Every deletion and failure is kept in a short operation log on the
// partition itself, so that what vanished can still be told after a reboot.
//
// No walk here follows a link: entries are examined with lstat, directories
// are opened with O_NOFOLLOW, and a link is deleted as itself, so a link
// planted on the partition never leads a chmod or an unlink outside it.
class RescueSpaceThread {
public:
    using KeepSet = std::set<std::string>;
    using StatfsFn = std::function<int(const char* path, struct statfs* out)>;

    // One sleep of the pause between cycles; the timer counts these.
    static constexpr int64_t kSleepMs = 60 * 1000;

    RescueSpaceThread();

    // The free-space source of every instance in the process (the binder's
    // wipe makes its own); an empty function puts statfs back.
    static void SetStatfsForTesting(StatfsFn fn);

    // The start lines, and whether the core-dump pass is wanted.
    void Start();
    // One cleaning cycle: core dumps, size limits, the three levels.
    void RunCycle();
    // Runs cycles with their pauses for ever, sleeping on the injectable clock.
    void threadLoop();

    bool IsPartitionSpaceRatioFull(std::string& path);
    uint64_t CountDirSize(const std::string& path);
    bool DeleteDirectoryFiles(const std::string& path, const KeepSet& keep, bool removeDirectories,
                              unsigned long maxAgeSeconds);
    void UpdatePermission(const std::string& path);
    void LogRescueSpaceMonitorOperate(std::string message);
    void FactoryResetWipeRescuePartition();

    const std::string& rescueBase() const { return rescueBase_; }
    const std::string& operationLogPath() const { return operationLogPath_; }

    static const KeepSet& Level1Keep();
    static const KeepSet& Level2Keep();
    static const KeepSet& Level3Keep();
    static const KeepSet& FactoryResetKeep();

private:
    void ManageLevels();
    bool CollectFileList(const std::string& base, std::string* out);
    bool WriteFileList(const std::string& path, const std::string& list);

    std::string operationLogPath_;
    std::string rescueBase_;
    bool coredumpManaged_ = true;
};

}  // namespace tarnis
}  // namespace velmar
