#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <android-base/unique_fd.h>

#include "utils/BlackBoxLayout.h"
#include "utils/BlackBoxPartition.h"
#include "utils/StopSignal.h"

namespace velmar {
namespace tarnis {

// Preserves the platform exception collector's fatal crash databases in the
// black-box partition: each one is encrypted into a container, copied into a
// three-slot ring of the firmware-database area, listed in that area's header
// and counted in the crash history, and a one-line summary goes to
// /proc/crash_module.
//
// A write into the partition can be cut short at any byte (the daemon killed,
// the disk full while the container is staged), so the partition is changed
// in an order that never lets a header name bytes that are not there: the
// container is staged and checked in full first; a slot whose bytes the new
// container will cover is first dropped from the on-disk header (fsynced);
// only then is the container written and fsynced, and only then the header
// that lists it. A staging failure leaves the partition untouched.
class AndroidCrashMonitorThread {
public:
    // Stands in for the worker's writes, so that tests can fail or cut them:
    // each call is one whole write the worker asks for (one chunk where it
    // copies), `offset` < 0 at the file position, else at `offset`; a count
    // short of `len` fails that write.
    using WriteHook = std::function<ssize_t(int fd, const void* buf, size_t len, off_t offset)>;

    // What a crash-history line is made of.
    struct CrashRecord {
        uint32_t mainType = 0;
        uint32_t type = 0;
        std::string kind;  // "NE", "JE", "SWT" or empty
        std::string time;  // from the history line's "CST" marker
        std::string line;  // the history line of this database
    };

    // With a stop signal of its own, for a caller that drives the steps itself.
    AndroidCrashMonitorThread();
    // Every wait ends on `stop`: the module's worker's signal.
    explicit AndroidCrashMonitorThread(kolto::StopSignal& stop);
    ~AndroidCrashMonitorThread();
    AndroidCrashMonitorThread(const AndroidCrashMonitorThread&) = delete;
    AndroidCrashMonitorThread& operator=(const AndroidCrashMonitorThread&) = delete;

    // Watches the collector's directory and handles each fatal database, on
    // the calling thread (the module's worker), until the stop signal.
    // Returns 0 when the directory cannot be watched, 1 once stopped.
    int threadLoop();
    // Requests the stop signal this object waits on, from any thread.
    void RequestStop();

    // Waits up to 20 s for the collector to report its own partition writes
    // done; a stop ends the wait.
    void WaitForWriteStatusDone();
    // One fatal database announced by the collector: the encrypt choice
    // (kept in `encrypt` across databases), the write, the headers, the
    // history and the summary.
    void HandleFatalDb(bool* encrypt);

    int write_fw_db_to_blackbox(bool encrypt);
    int update_black_box_fw_minidump_header(int writeResult);
    int write_blackbox_crash_history();
    // One line of the collector's history (as a 512-byte line buffer reads
    // it) for database `dbName`: a line with a "CST" marker (any case) sets
    // the crash time, and one that also names the database sets the rest of
    // `record`, so that the last such line wins. True when it named it.
    static bool ParseDbHistoryLine(const char* line, const char* dbName, CrashRecord* record);
    // Steps of the history after the collector's history file was read.
    int WriteCrashHistoryRecord(const CrashRecord& record);
    void update_proc_crash_module();
    int get_db_name(char* out, unsigned long size);
    int write_rsa_encrypt_data(int fd, unsigned char* key, int len);
    int write_file_to_blackbox(int srcFd, const kolto::blackbox::Partition& partition, unsigned long offset);
    void sync_directory(const char* path);
    int get_black_box_version();

    const kolto::blackbox::LogTableHeader& logTableHeader() const { return table_; }
    const kolto::blackbox::FwMinidumpHeader& fwHeader() const { return fw_; }
    const std::string& summary() const { return summary_; }
    int handled() const { return handled_.load(); }

    static void SetWriteHookForTesting(WriteHook hook);

private:
    // How far one write got: the header it found, and what of the new slot
    // it filled in, so that the header written at the end follows the ring's
    // rules for success and for failure alike.
    struct PendingSlot {
        bool recorded = false;  // the slot was chosen and filled in
        bool advanced = false;  // the container is in the partition
        bool valid = false;     // ... and fsynced: it may be listed
        uint32_t slot = 0;
        uint32_t position = 0;
        uint64_t padded = 0;
        std::string name;
        bool restarted = false;                      // the ring went back to the area's start
        kolto::blackbox::FwMinidumpHeader before{};  // the header as this write found it
    };

    void InitLogTableHeader();
    void InitFwMinidumpHeader();
    bool LoadHeaders();
    // Drops from the on-disk header every slot whose bytes [start, end) covers.
    bool ClearOverlappedSlots(const kolto::blackbox::Partition& partition, uint64_t start, uint64_t end);
    bool StageContainer(int dbFd, int containerFd, uint64_t plainSize, uint64_t padded, unsigned char* key);
    void DeleteEncFiles(int dirFd, const std::string& dir);
    void RemoveLeftoverContainers();
    bool ReadDbPath(const std::string& name, std::string* devicePath);
    bool WaitBootCompleted();

    kolto::blackbox::LogTableHeader table_{};
    kolto::blackbox::FwMinidumpHeader fw_{};
    bool headersLoaded_ = false;
    uint64_t historyBase_ = kolto::blackbox::kCrashHistoryDefaultBase;
    PendingSlot pending_;
    std::string summary_;
    std::atomic<int> handled_{0};

    // Set only when no signal was given; declared before stop_, which may
    // refer to it.
    std::unique_ptr<kolto::StopSignal> ownStop_;
    kolto::StopSignal& stop_;
};

}  // namespace tarnis
}  // namespace velmar
