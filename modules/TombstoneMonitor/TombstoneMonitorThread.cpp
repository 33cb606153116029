#include "modules/TombstoneMonitor/TombstoneMonitorThread.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/Paths.h"

#define LOG_TAG "TombstoneMonitor"

namespace velmar {
namespace tarnis {

using android::base::unique_fd;
namespace paths = kolto::paths;

namespace {

constexpr char kInDirProperty[] = "sys.tombstone.monitor.in.dir";
constexpr char kOutDirProperty[] = "sys.tombstone.monitor.out.dir";
constexpr char kTombstoneMarker[] = "tombstone_";
constexpr uint32_t kAllEvents = 0xFFF;
constexpr uid_t kSystemUid = 1000;
constexpr gid_t kSystemGid = 1000;
constexpr mode_t kMirrorMode = 0770;

// Splits "DIR/NAME" into the directory (without its trailing slash) and NAME.
bool SplitPath(const std::string& path, std::string* dir, std::string* name) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash + 1 == path.size()) return false;
    *dir = slash == 0 ? "/" : path.substr(0, slash);
    *name = path.substr(slash + 1);
    return true;
}

// The directory that holds `path`'s entry, itself reached without
// following a link in its last component.
unique_fd OpenParent(const std::string& path, std::string* name) {
    std::string dir;
    if (!SplitPath(path, &dir, name)) {
        errno = EINVAL;
        return unique_fd();
    }
    return unique_fd(TEMP_FAILURE_RETRY(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
}

// Writes the whole of `in` to a fresh file in `dirFd` and renames it to
// `name`: the mirror entry is either the old one or a complete copy, and a
// link or file planted under `name` is replaced, never written through.
bool CopyInto(int in, int dirFd, const std::string& name) {
    const std::string temp = "." + name + ".tmp";
    unique_fd out(TEMP_FAILURE_RETRY(
            openat(dirFd, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMirrorMode)));
    if (!out.ok() && errno == EEXIST) {
        // Left behind by a copy that was cut short.
        unlinkat(dirFd, temp.c_str(), 0);
        out.reset(TEMP_FAILURE_RETRY(
                openat(dirFd, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kMirrorMode)));
    }
    if (!out.ok()) return false;
    char buf[16384];
    bool ok = true;
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(read(in, buf, sizeof(buf)));
        if (got == 0) break;
        if (got < 0 || !android::base::WriteFully(out.get(), buf, static_cast<size_t>(got))) {
            ok = false;
            break;
        }
    }
    if (ok) {
        if (fchown(out.get(), kSystemUid, kSystemGid) != 0) {
            ALOGD("chown %s failed: %s", name.c_str(), strerror(errno));
        }
        ok = fchmod(out.get(), kMirrorMode) == 0 && fsync(out.get()) == 0 &&
             renameat(dirFd, temp.c_str(), dirFd, name.c_str()) == 0;
    }
    if (!ok) {
        const int saved = errno;
        unlinkat(dirFd, temp.c_str(), 0);
        errno = saved;
    }
    return ok;
}

}  // namespace

TombstoneMonitorThread::TombstoneMonitorThread() = default;

void TombstoneMonitorThread::RequestStop() { stop_.Request(); }

bool TombstoneMonitorThread::WaitOutputDir(const std::string& dir) {
    struct stat st;
    bool exists = false;
    for (int i = 0; i < kOutDirChecks; ++i) {
        exists = stat(dir.c_str(), &st) == 0;
        if (exists) break;
        if (i + 1 < kOutDirChecks && !stop_.Sleep(kOutDirCheckMs)) return false;
    }
    if (!exists) {
        ALOGE("wait %s timeout, so exit: %s", dir.c_str(), strerror(errno));
        return false;
    }
    // The directory's creator may still be setting it up.
    return stop_.Sleep(kSettleMs);
}

void TombstoneMonitorThread::threadLoop() {
    ALOGI("Tombstone Monitor is Start!");
    const std::string inDir = paths::Get(android::base::GetProperty(kInDirProperty, paths::kTombstoneDir));
    const std::string outDir =
            paths::Get(android::base::GetProperty(kOutDirProperty, paths::kNativeCrashTombstoneDir));
    if (!WaitOutputDir(outDir)) return;

    unique_fd inotify;
    do {
        inotify.reset(inotify_init1(IN_CLOEXEC));
    } while (!inotify.ok() && errno == EINTR);
    if (!inotify.ok()) {
        ALOGE("inotify_init error: %s", strerror(errno));
        return;
    }
    if (inotify_add_watch(inotify.get(), inDir.c_str(), kAllEvents) < 0) {
        ALOGE("inotify_add_watch error: %s", strerror(errno));
        return;
    }
    watching_.store(true);
    ReadEvents(inotify.get(), inDir, outDir);
    watching_.store(false);
}

void TombstoneMonitorThread::ReadEvents(int inotifyFd, const std::string& inDir, const std::string& outDir) {
    // Whole events only: the kernel never splits one across reads.
    alignas(struct inotify_event) char buf[sizeof(struct inotify_event) * 16 + NAME_MAX + 1];
    for (;;) {
        struct pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        const int ready = poll(fds, 2, -1);
        if (stop_.Requested()) return;
        if (ready < 0 && errno == EINTR) continue;
        ssize_t len = ready > 0 ? TEMP_FAILURE_RETRY(read(inotifyFd, buf, sizeof(buf))) : -1;
        if (len <= 0) {
            if (len == 0) errno = EIO;
            ALOGE("read error %d:%s\n", errno, strerror(errno));
            ALOGI("Listening for events stopped.");
            return;
        }
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(struct inotify_event)) <= len;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buf + at);
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
            if (at > len) break;
            if (event->len == 0 || event->name[event->len - 1] != '\0') continue;
            HandleEvent(event->mask, event->name, inDir, outDir);
        }
    }
}

void TombstoneMonitorThread::HandleEvent(uint32_t mask, const std::string& name, const std::string& inDir,
                                         const std::string& outDir) {
    if (name.find(kTombstoneMarker) == std::string::npos) return;
    if (mask & IN_DELETE) {
        ALOGI("Detected deletd file: %s", name.c_str());
        const std::string path = outDir + name;
        std::string entry;
        unique_fd dir = OpenParent(path, &entry);
        // unlinkat removes a link itself, never what it points at.
        if (!dir.ok() || unlinkat(dir.get(), entry.c_str(), 0) != 0) {
            ALOGE("remove path %s failed! info: %s\n", path.c_str(), strerror(errno));
        }
    } else if (mask & (IN_CREATE | IN_MODIFY)) {
        ALOGW("Detected creat or modify file: %s", name.c_str());
        const std::string src = inDir + name;
        const std::string dst = outDir + name;
        if (!copy(src, dst)) ALOGE("Faile to copy file: %s, %s !", src.c_str(), dst.c_str());
    }
}

bool TombstoneMonitorThread::copy(const std::string& src, const std::string& dst) {
    // O_NONBLOCK so that a FIFO named like a tombstone cannot hold the
    // monitor; it is refused as not regular just below.
    unique_fd in(TEMP_FAILURE_RETRY(open(src.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    if (!in.ok()) {
        ALOGW("open file [%s] error: %s", src.c_str(), strerror(errno));
        return false;
    }
    struct stat st;
    if (fstat(in.get(), &st) != 0) {
        ALOGE("Failed to fstat file: %s, %s", src.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) return false;
    std::string name;
    unique_fd dir = OpenParent(dst, &name);
    if (!dir.ok() || !CopyInto(in.get(), dir.get(), name)) {
        ALOGE("Faile to copy file: %s, %s", src.c_str(), strerror(errno));
        return false;
    }
    ++copies_;
    return true;
}

}  // namespace tarnis
}  // namespace velmar
