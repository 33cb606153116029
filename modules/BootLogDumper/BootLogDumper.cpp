#define LOG_TAG "BootLogDumper"

#include "modules/BootLogDumper/BootLogDumper.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/Paths.h"
#include "utils/PropertyWait.h"

extern char** environ;

namespace velmar {
namespace tarnis {

using android::base::StringPrintf;
using android::base::unique_fd;
namespace paths = kolto::paths;

namespace {

constexpr char kArchivePrefix[] = "boot_log";
// tar writes here first; the archive appears under its name only once whole.
// The name does not begin with the archive prefix, so pruning never counts it.
constexpr char kArchiveTemp[] = ".boot_log.partial.gz";

std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// Waits for child `pid` and returns its wait status (-1 when it could not be
// reaped). A stop kills it first: a tool that hangs must not hold the
// module's removal. Without a process descriptor, the wait is a plain one.
int WaitChild(pid_t pid, const kolto::StopSignal& stop) {
    unique_fd child(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (child.ok() && stop.fd() >= 0) {
        struct pollfd waits[2] = {{child.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
        while (TEMP_FAILURE_RETRY(poll(waits, 2, -1)) >= 0 && waits[0].revents == 0) {
            if (waits[1].revents != 0) {
                ALOGW("stopped: killing pid %d", static_cast<int>(pid));
                kill(pid, SIGKILL);
                break;
            }
        }
    }
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) != pid) return -1;
    return status;
}

// Runs `argv` and returns its wait status (-1 when it could not be started,
// or when stopped). Its standard output goes to /dev/null when `quiet`: tar
// lists every file.
int RunProgram(const std::vector<std::string>& argv, bool quiet, const kolto::StopSignal& stop) {
    if (stop.Requested()) return -1;
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int err = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (err != 0) {
        ALOGE("cannot run %s: %s", args[0], strerror(err));
        return -1;
    }
    const int status = WaitChild(pid, stop);
    if (status < 0) return -1;
    if (status != 0) ALOGW("%s ended with status %d", args[0], status);
    return status;
}

int RunShell(const std::string& command, const kolto::StopSignal& stop) {
    return RunProgram({"/bin/sh", "-c", command}, false, stop);
}

// "boot_log_%lu_%lu_%lu": three unsigned numbers after the prefix.
bool ParseArchiveName(const char* name) {
    const char* p = name + strlen(kArchivePrefix);
    for (int field = 0; field < 3; ++field) {
        if (*p != '_') return false;
        ++p;
        if (*p < '0' || *p > '9') return false;
        while (*p >= '0' && *p <= '9') ++p;
    }
    return true;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool IsDirectoryNoFollow(const std::string& path, bool* exists) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        *exists = false;
        return false;
    }
    *exists = true;
    return S_ISDIR(st.st_mode);
}

}  // namespace

BootLogDumper::BootLogDumper() : ownStop_(std::make_unique<kolto::StopSignal>()), stop_(*ownStop_) {}

BootLogDumper::BootLogDumper(kolto::StopSignal& stop) : stop_(stop) {}

bool BootLogDumper::WaitBootCompleted() {
    return kolto::WaitForPropertyUnlessStopped("sys.boot_completed", "1", stop_.flag());
}

void BootLogDumper::Gathered(const char* what) {
    std::lock_guard<std::mutex> guard(progressLock_);
    gathered_ += gathered_.empty() ? what : std::string(", ") + what;
}

std::string BootLogDumper::Progress() const {
    std::lock_guard<std::mutex> guard(progressLock_);
    return "gathered: " + (gathered_.empty() ? std::string("nothing yet") : gathered_) +
           "\narchive: " + (archive_.empty() ? std::string("none") : archive_) + "\n";
}

void BootLogDumper::dump_boot_logs() {
    if (!WaitBootCompleted()) return;

    const std::string staging = paths::Get(paths::kBootLogDir);
    bool exists = false;
    if (!IsDirectoryNoFollow(staging, &exists) && exists) {
        // Whatever stands in the directory's place (a planted link above all)
        // goes, so that nothing below is written through it.
        ALOGW("%s is not a directory, replacing it", staging.c_str());
        unlink(staging.c_str());
        exists = false;
    }
    if (!exists) {
        ALOGI("%s is not existed, create it!", staging.c_str());
        if (mkdir(staging.c_str(), 0775) != 0 || chmod(staging.c_str(), 0775) != 0) {
            ALOGE("mkdir %s failed!", staging.c_str());
            return;
        }
    }
    // Left-overs of a pass that stopped early are replaced, never written through.
    const std::string kernelLog = paths::Get(paths::kBootLogKernelLog);
    const std::string mainLog = paths::Get(paths::kBootLogMainLog);
    const std::string plLk = paths::Get(paths::kBootLogPlLk);
    const std::string bootprof = paths::Get(paths::kBootLogBootprof);
    for (const std::string* path : {&kernelLog, &mainLog, &plLk, &bootprof}) unlink(path->c_str());

    ALOGI("begin dump boot kernel log");
    RunShell(ShellQuote(paths::Get(paths::kSystemDmesg)) + " > " + ShellQuote(kernelLog), stop_);
    if (stop_.Requested()) return;
    Gathered("kernel log");
    ALOGI("begin dump boot main log");
    RunShell(ShellQuote(paths::Get(paths::kSystemLogcat)) + " -d -v threadtime '*:V' > " + ShellQuote(mainLog),
             stop_);
    if (stop_.Requested()) return;
    Gathered("main log");

    ALOGI("begin dump boot pl_lk log");
    if (copy_file(paths::Get(paths::kProcPlLk).c_str(), 0, plLk.c_str(), 0) < 0) {
        ALOGE("%s: Copy boot pl_lk log failed!", __func__);
        return;
    }
    Gathered("pl_lk log");
    ALOGI("begin dump boot proof log");
    if (copy_file(paths::Get(paths::kProcBootprof).c_str(), 0, bootprof.c_str(), 0) < 0) {
        ALOGE("%s: Copy boot proof log failed!", __func__);
        return;
    }
    Gathered("boot profile");
    PruneArchives(paths::Get(paths::kAeeExpDir));
    MakeArchive();
}

void BootLogDumper::MakeArchive() {
    const std::string dir = paths::Get(paths::kAeeExpDir);
    const std::string staging = paths::Get(paths::kBootLogDir);
    const std::string now = FormatArchiveTime(kolto::GetClock().WallNowMs());
    ALOGI("current_time: %s", now.c_str());
    const std::string archive = StringPrintf("%s/boot_log_%s.gz", dir.c_str(), now.c_str());
    const std::string temp = dir + "/" + kArchiveTemp;
    unlink(temp.c_str());
    const int tarStatus =
        RunProgram({paths::Get(paths::kSystemTar), "zcvf", temp, "-C", staging, "."}, true, stop_);
    if (stop_.Requested()) {
        unlink(temp.c_str());
        return;
    }
    if (tarStatus == 0) {
        if (rename(temp.c_str(), archive.c_str()) != 0) {
            ALOGE("cannot put %s in place: %s", archive.c_str(), strerror(errno));
            unlink(temp.c_str());
        } else {
            std::lock_guard<std::mutex> guard(progressLock_);
            archive_ = archive.substr(dir.size() + 1);
        }
    } else {
        ALOGE("tar failed for %s, no archive made", archive.c_str());
        unlink(temp.c_str());
    }
    RunProgram({paths::Get(paths::kSystemRm), "-rf", staging}, false, stop_);

    unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) {
        ALOGE("cannot open directory: %s for sync", dir.c_str());
        return;
    }
    if (fsync(fd.get()) != 0) {
        ALOGE("sync directory failed: %s", strerror(errno));
        return;
    }
    ALOGI("directory: %s has been synced to disk\n", dir.c_str());
}

std::string BootLogDumper::FormatArchiveTime(int64_t wallMs) {
    const time_t now = static_cast<time_t>(wallMs / 1000);
    struct tm local {};
    localtime_r(&now, &local);
    return StringPrintf("%04d_%02d%02d_%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                        local.tm_hour, local.tm_min, local.tm_sec);
}

void BootLogDumper::PruneArchives(const std::string& dir) {
    unique_fd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, DirCloser> stream;
    if (dirFd.get() >= 0) stream.reset(fdopendir(dirFd.get()));
    if (!stream) {
        ALOGI("Error opening directory '%s': %s", dir.c_str(), strerror(errno));
        return;
    }
    const int fd = dirFd.release();  // the stream owns it now
    std::vector<std::string> archives;
    while (struct dirent* entry = readdir(stream.get())) {
        const char* name = entry->d_name;
        if (strncmp(name, kArchivePrefix, strlen(kArchivePrefix)) != 0) continue;
        const std::string path = dir + "/" + name;
        struct stat st {};
        if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ALOGE("Error stating file '%s': %s", path.c_str(), strerror(errno));
            continue;
        }
        if (!ParseArchiveName(name)) {
            ALOGW("Unrecognized log file %s", name);
            if (unlinkat(fd, name, 0) != 0) ALOGE("Failed to unlink %s", path.c_str());
            continue;
        }
        archives.push_back(name);
    }
    // Newest first: the time fields are zero-padded, so byte order is time order.
    std::sort(archives.begin(), archives.end(), std::greater<std::string>());
    if (archives.size() <= kKeptOldArchives) return;
    for (size_t i = kKeptOldArchives; i < archives.size(); ++i) {
        if (unlinkat(fd, archives[i].c_str(), 0) != 0) ALOGE("Failed to unlink %s", (dir + "/" + archives[i]).c_str());
    }
}

int BootLogDumper::copy_file(const char* src, unsigned long srcOffset, const char* dst, unsigned long dstOffset) {
    if (access(src, F_OK) != 0) {
        ALOGE("src file %s is not exist!", src);
        return -1;
    }
    // Non-blocking, so that a FIFO in the source's place cannot hold the pass.
    unique_fd in(open(src, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (in.get() < 0) {
        ALOGE("open file %s failed, error: %s", src, strerror(errno));
        return -1;
    }
    struct stat st {};
    if (lstat(dst, &st) != 0) {
        ALOGI("tgt file %s is not exist, need to create it!", dst);
    }
    // A link in the target's place is refused, not followed.
    unique_fd out(open(dst, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
    if (out.get() < 0) {
        ALOGE("open tgt file %s failed, error: %s", dst, strerror(errno));
        return -1;
    }
    if (lseek(in.get(), static_cast<off_t>(srcOffset), SEEK_SET) < 0) {
        ALOGE("%s: Failed to seek to offset %lu of the src file", __func__, srcOffset);
        return -1;
    }
    if (lseek(out.get(), static_cast<off_t>(dstOffset), SEEK_SET) < 0) {
        ALOGE("%s: Failed to seek to offset %lu of the tgt file", __func__, dstOffset);
        return -1;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t bytesRead = TEMP_FAILURE_RETRY(read(in.get(), buffer, sizeof(buffer)));
        if (bytesRead < 0) {
            ALOGE("read file %s failed, error: %s", src, strerror(errno));
            return -1;
        }
        if (bytesRead == 0) return 0;
        const ssize_t bytesWritten = TEMP_FAILURE_RETRY(write(out.get(), buffer, static_cast<size_t>(bytesRead)));
        if (bytesWritten != bytesRead) {
            ALOGE("write file failed, bytesRead = %zu, bytesWritten = %zu", static_cast<size_t>(bytesRead),
                  static_cast<size_t>(bytesWritten < 0 ? 0 : bytesWritten));
            return -1;
        }
    }
}

}  // namespace tarnis
}  // namespace velmar
