#define LOG_TAG "AndroidCrashMonitor"

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"
#include "modules/AndroidCrashMonitor/AndroidCrashMonitorShared.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <utility>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>
#include <openssl/crypto.h>

#include "framework/FileEventListener.h"
#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/Cryptography.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace velmar {
namespace tarnis {

namespace bb = kolto::blackbox;
namespace crypto = kolto::cryptography;
namespace paths = kolto::paths;
using android::base::GetProperty;
using android::base::SetProperty;
using android::base::unique_fd;
using kolto::ConfinedPath;

using crash_monitor::Shown;
using crash_monitor::WriteAll;

namespace {

constexpr char kStatusProperty[] = "vendor.blackbox.write.status";
constexpr char kDbProperty[] = "vendor.debug.mtk.aee.db";
constexpr int kStatusPolls = 20;
constexpr int64_t kSecondMs = 1000;
// Events waiting while a database is handled; the kernel's own queue is of
// the same order. Beyond that a burst of unrelated writes is dropped rather
// than held without bound.
constexpr size_t kMaxQueuedEvents = 1024;
// Without an eventfd on either side, how often the worker looks again.
constexpr int kQueueCheckMs = 100;

std::mutex& HookLock() {
    static std::mutex lock;
    return lock;
}
AndroidCrashMonitorThread::WriteHook& Hook() {
    static AndroidCrashMonitorThread::WriteHook hook;
    return hook;
}

AndroidCrashMonitorThread::WriteHook CurrentHook() {
    std::lock_guard<std::mutex> guard(HookLock());
    return Hook();
}

ssize_t WriteOnce(int fd, const void* buf, size_t len, off_t offset) {
    const AndroidCrashMonitorThread::WriteHook hook = CurrentHook();
    return TEMP_FAILURE_RETRY(hook ? hook(fd, buf, len, offset)
                                   : offset < 0 ? write(fd, buf, len) : pwrite(fd, buf, len, offset));
}

bool ContainsNoCase(const std::string& text, const char* needle) {
    return strcasestr(text.c_str(), needle) != nullptr;
}

// The directory's events, from the listener's thread to the worker's, in
// the kernel's order. The worker takes all that gathered at once: one batch
// between two waits for the collector's status.
class EventQueue {
public:
    EventQueue() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

    void Push(uint32_t mask) {
        std::lock_guard<std::mutex> guard(lock_);
        if (masks_.size() >= kMaxQueuedEvents) {
            if (!overflowed_) ALOGW("%s: too many events waiting, dropping some", "threadLoop");
            overflowed_ = true;
            return;
        }
        masks_.push_back(mask);
        const uint64_t one = 1;
        if (wake_.ok() && write(wake_.get(), &one, sizeof(one)) < 0) {
            // Only fails when the counter is already non-zero: woken anyway.
        }
    }

    // What gathered, once there is something; empty once `stop` is requested.
    std::deque<uint32_t> Take(kolto::StopSignal& stop) {
        while (!stop.Requested()) {
            {
                std::lock_guard<std::mutex> guard(lock_);
                if (!masks_.empty()) {
                    uint64_t count;
                    if (wake_.ok() && read(wake_.get(), &count, sizeof(count)) < 0) {
                        // Nothing counted: the events were pushed all the same.
                    }
                    overflowed_ = false;
                    return std::exchange(masks_, {});
                }
            }
            struct pollfd fds[2] = {{wake_.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
            const bool canWake = wake_.ok() && stop.fd() >= 0;
            poll(fds, 2, canWake ? -1 : kQueueCheckMs);
        }
        return {};
    }

private:
    unique_fd wake_;
    std::mutex lock_;
    std::deque<uint32_t> masks_;
    bool overflowed_ = false;
};

// Only queues: the listener's thread never waits on a database.
class DirListener : public kolto::FileEventListener {
public:
    explicit DirListener(EventQueue* queue) : FileEventListener("CrashMonitorDir", {}, 0), queue_(queue) {}
    ~DirListener() override { stop(); }

    void OnFileEvent(uint32_t mask, std::optional<std::string>, const std::string&) override { queue_->Push(mask); }

private:
    EventQueue* const queue_;
};

}  // namespace

bool crash_monitor::WriteAll(int fd, const void* data, size_t len) {
    if (!CurrentHook()) return android::base::WriteFully(fd, data, len);
    const ssize_t n = WriteOnce(fd, data, len, -1);
    if (n == static_cast<ssize_t>(len)) return true;
    if (n >= 0) errno = ENOSPC;
    return false;
}

AndroidCrashMonitorThread::AndroidCrashMonitorThread()
    : ownStop_(std::make_unique<kolto::StopSignal>()), stop_(*ownStop_) {}

AndroidCrashMonitorThread::AndroidCrashMonitorThread(kolto::StopSignal& stop) : stop_(stop) {}

AndroidCrashMonitorThread::~AndroidCrashMonitorThread() = default;

void AndroidCrashMonitorThread::SetWriteHookForTesting(WriteHook hook) {
    bb::Partition::SetWriteHookForTesting(hook);
    std::lock_guard<std::mutex> guard(HookLock());
    Hook() = std::move(hook);
}

void AndroidCrashMonitorThread::RequestStop() { stop_.Request(); }

int AndroidCrashMonitorThread::get_black_box_version() {
    return bb::GetBlackBoxVersion(LOG_TAG);
}

int AndroidCrashMonitorThread::get_db_name(char* out, unsigned long size) {
    const std::string value = GetProperty(kDbProperty, "null");
    if (value == "null") {
        ALOGE("%s: No reboot db", __func__);
        return -1;
    }
    const size_t at = value.find("db.");
    if (at == std::string::npos) {
        ALOGE("%s: No db name", __func__);
        return -1;
    }
    const std::string name = value.substr(at);
    if (out == nullptr || name.size() >= size) {
        ALOGE("%s: No db name", __func__);
        return -1;
    }
    memcpy(out, name.c_str(), name.size() + 1);
    return 0;
}

bool AndroidCrashMonitorThread::ReadDbPath(const std::string& name, std::string* devicePath) {
    const std::string value = GetProperty(kDbProperty, "null");
    const size_t slash = value.find('/');
    if (slash == std::string::npos) {
        ALOGE("%s: No db path", "get_db_path");
        return false;
    }
    char path[PATH_MAX];
    const int n = snprintf(path, sizeof(path), "%s/%s.dbg", value.c_str() + slash, name.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) {
        ALOGE("%s: failed to snprintf for db_path", "get_db_path");
        return false;
    }
    // The collector writes its databases below the directory the monitor
    // watches; a path anywhere else is not one of them.
    std::string why;
    if (!ConfinedPath::Relative(path, paths::kAeeExpDir, nullptr, &why)) {
        ALOGE("%s: db path refused: %s", "get_db_path", why.c_str());
        return false;
    }
    *devicePath = path;
    return true;
}

void AndroidCrashMonitorThread::DeleteEncFiles(int dirFd, const std::string& dir) {
    unique_fd own(dirFd >= 0 ? fcntl(dirFd, F_DUPFD_CLOEXEC, 0) : -1);
    DIR* stream = own.ok() ? fdopendir(own.get()) : nullptr;
    if (stream == nullptr) {
        ALOGE("cannot open directory: %s", Shown(dir).c_str());
        return;
    }
    const int fd = own.release();
    std::unique_ptr<DIR, int (*)(DIR*)> guard(stream, closedir);
    while (struct dirent* entry = readdir(stream)) {
        const char* dot = strrchr(entry->d_name, '.');
        if (dot == nullptr || strcmp(dot, ".enc") != 0) continue;
        struct stat st;
        if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
        const std::string path = dir + "/" + entry->d_name;
        ALOGI("delete enc file: %s\n", Shown(path).c_str());
        if (unlinkat(fd, entry->d_name, 0) == 0) {
            ALOGI("delete enc file successfully!");
        } else {
            ALOGE("delete enc file failed: %s\n", Shown(path).c_str());
        }
    }
}

void AndroidCrashMonitorThread::RemoveLeftoverContainers() {
    // A container staged by a run that was killed stays beside its
    // database, which may never be announced again: every database
    // directory is swept once at start.
    const std::string top = paths::Get(paths::kAeeExpDir);
    unique_fd topFd(TEMP_FAILURE_RETRY(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    unique_fd own(topFd.ok() ? fcntl(topFd.get(), F_DUPFD_CLOEXEC, 0) : -1);
    kolto::ScopedDir entries = kolto::AdoptDir(own);
    if (!entries) return;
    kolto::TempName::RemoveLeftovers(topFd.get(), top);
    rewinddir(entries.get());  // shares its position with the sweep's own walk
    while (struct dirent* entry = readdir(entries.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        unique_fd sub(TEMP_FAILURE_RETRY(
                openat(topFd.get(), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
        if (sub.ok()) kolto::TempName::RemoveLeftovers(sub.get(), top + "/" + entry->d_name);
    }
}

void AndroidCrashMonitorThread::sync_directory(const char* path) {
    unique_fd fd(TEMP_FAILURE_RETRY(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    if (!fd.ok()) {
        ALOGE("cannot open directory: %s for sync", Shown(path).c_str());
        return;
    }
    if (fsync(fd.get()) != 0) {
        ALOGE("sync directory failed: %s", Shown(path).c_str());
        return;
    }
    ALOGI("directory: %s has been synced to disk\n", Shown(path).c_str());
}

void AndroidCrashMonitorThread::update_proc_crash_module() {
    if (summary_.empty()) return;
    const std::string path = paths::Get(paths::kProcCrashModule);
    // Non-blocking and checked: a FIFO there would hold the worker in open()
    // for ever, with the write status stuck at "writing".
    unique_fd fd(TEMP_FAILURE_RETRY(
            open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644)));
    struct stat st;
    if (fd.ok() && (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) {
        ALOGE("%s: open proc crash_module file failed!", __func__);
        ALOGE("%s: %s is not a regular file, not written", __func__, Shown(path).c_str());
        return;
    }
    if (!fd.ok() || !WriteAll(fd.get(), summary_.data(), summary_.size())) {
        const int error = errno;
        ALOGE("%s: open proc crash_module file failed!", __func__);
        ALOGE("%s: %s: %s", __func__, Shown(path).c_str(), strerror(error));
    }
}

void AndroidCrashMonitorThread::WaitForWriteStatusDone() {
    for (int i = 0; i < kStatusPolls; ++i) {
        const std::string status = GetProperty(kStatusProperty, "unknown");
        ALOGI("%s: propbuf = %s", "wait_blackbox_write_status", Shown(status).c_str());
        if (status == "done") break;
        if (!stop_.Sleep(kSecondMs)) break;
        ALOGI("%s: i = %d", "wait_blackbox_write_status", i);
    }
}

bool AndroidCrashMonitorThread::WaitBootCompleted() {
    // Without limit, as boot completion may take long, but in steps so that a
    // stop is noticed.
    while (!stop_.Requested()) {
        if (android::base::WaitForProperty("sys.boot_completed", "1", std::chrono::milliseconds(500))) return true;
    }
    return false;
}

void AndroidCrashMonitorThread::HandleFatalDb(bool* encrypt) {
    static constexpr char kFunc[] = "threadLoop";
    SetProperty("persist.mtk.fw.minidump.existed", "true");
    SetProperty(kStatusProperty, "writing");
    ALOGI("%s: monitored IN_CLOSE_WRITE event,  begin write fw db to blackbox", kFunc);
    if (strcasecmp(GetProperty("ro.boot.hwlevel", "").c_str(), "MP") != 0) {
        if (GetProperty("ro.boot.db_encrypt", "") == "1") {
            ALOGI("%s: db encrypt flag is set to 1, need to enable fw db encrypt", kFunc);
            *encrypt = true;
        }
    } else {
        if (!WaitBootCompleted()) {
            SetProperty(kStatusProperty, "done");
            return;
        }
        *encrypt = android::base::GetBoolProperty("persist.sys.stability.db_encrypt.enable", false);
        if (*encrypt) {
            ALOGI("%s: MP device, cloud control property is true, need to enable fw db encrypt", kFunc);
        } else {
            ALOGI("%s: MP device, cloud control property is not true, need to disable fw db encrypt", kFunc);
        }
    }
    const int r = write_fw_db_to_blackbox(*encrypt);
    ALOGI("%s: return of write_fw_db_to_blackbox: %d", kFunc, r);
    const int h = update_black_box_fw_minidump_header(r);
    ALOGI("%s: return of update_black_box_fw_minidump_header: %d", kFunc, h);
    if (h != 0) {
        ALOGI("begin write_blackbox_crash_history");
        if (write_blackbox_crash_history() == 1) {
            ALOGI("begin update_proc_crash_module");
            update_proc_crash_module();
        }
    }
    SetProperty(kStatusProperty, "done");
    SetProperty(kDbProperty, "null");
    ++handled_;
}

int AndroidCrashMonitorThread::threadLoop() {
    EventQueue events;
    DirListener listener(&events);
    const std::string dir = paths::Get(paths::kAeeExpDir);
    // The directory the kernel watches is the one opened here, not whatever
    // its name leads to by the time the watch is added.
    std::string why;
    unique_fd dirFd = ConfinedPath::Open(paths::kAeeExpDir, paths::kAeeExpDir, O_RDONLY | O_DIRECTORY, 0, &why);
    if (!dirFd.ok() || listener.addWatching(paths::kAeeExpDir, dirFd.get(), IN_CLOSE_WRITE) != 0) {
        const int error = errno;
        // EBADF: the listener has no inotify descriptor at all.
        if (dirFd.ok() && error == EBADF) {
            ALOGE("%s: Failed to initialize inotify", __func__);
            return 0;
        }
        ALOGE("%s: Failed to add watch for directory %s, error = %d(%s)\n", __func__, Shown(dir).c_str(), error,
              strerror(error));
        return 0;
    }
    dirFd.reset();
    RemoveLeftoverContainers();
    SetProperty(kStatusProperty, "done");
    bool encrypt = false;
    while (!stop_.Requested()) {
        ALOGI("%s: Start to wait the completion of writing android db to blackbox", __func__);
        WaitForWriteStatusDone();
        ALOGI("%s: Finished to wait the writing of android db to blackbox", __func__);

        for (const uint32_t mask : events.Take(stop_)) {
            const std::string db = GetProperty(kDbProperty, "null");
            if (db == "null" || !ContainsNoCase(db, "fatal")) {
                ALOGE("%s: not fatal db, skip to handle it!", __func__);
                continue;
            }
            if ((mask & IN_CLOSE_WRITE) == 0) continue;
            HandleFatalDb(&encrypt);
            if (stop_.Requested()) break;
        }
    }
    return 1;
}

}  // namespace tarnis
}  // namespace velmar
