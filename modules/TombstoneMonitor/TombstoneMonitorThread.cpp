#define LOG_TAG "TombstoneMonitor"

#include "modules/TombstoneMonitor/TombstoneMonitorThread.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <log/log.h>

#include "framework/FileEventListener.h"
#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/Paths.h"
#include "utils/FileUtil.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"

namespace velmar {
namespace tarnis {

using android::base::unique_fd;
namespace paths = kolto::paths;

namespace {

constexpr char kInDirProperty[] = "sys.tombstone.monitor.in.dir";
constexpr char kOutDirProperty[] = "sys.tombstone.monitor.out.dir";
constexpr char kTombstoneMarker[] = "tombstone_";
// Both directories must lie in /data, where the platform's tombstones and
// the daemon's log tree are; a property naming anything else is refused.
constexpr const char* kDirTree = paths::kDataMountPoint;
constexpr uint32_t kAllEvents = 0xFFF;
constexpr uid_t kSystemUid = 1000;
constexpr gid_t kSystemGid = 1000;
constexpr mode_t kMirrorMode = 0770;

std::string Shown(const std::string& text) { return kolto::StringUtil::ForLog(text, 512); }

std::string LastComponent(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Writes `in` to a fresh temporary file in `dirFd` and renames it to `name`:
// the mirror entry is either the old one or a complete copy, and a link or
// file planted under `name` is replaced, never written through.
bool CopyInto(int in, off_t length, int dirFd, const std::string& name) {
    std::string temp;
    unique_fd out = kolto::TempName::CreateAt(dirFd, name, kMirrorMode, &temp);
    if (!out.ok()) return false;
    bool ok = kolto::FileUtil::CopySparse(in, out.get(), length);
    if (ok) {
        if (fchown(out.get(), kSystemUid, kSystemGid) != 0) {
            ALOGD("chown %s failed: %s", Shown(name).c_str(), strerror(errno));
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

bool IsRefusal(int error) { return error == ELOOP || error == EXDEV; }

}  // namespace

// The framework's listener, handing each event of the input directory to
// the monitor on its own thread, in the kernel's order.
class TombstoneMonitorThread::Listener : public kolto::FileEventListener {
public:
    explicit Listener(TombstoneMonitorThread* monitor)
        : FileEventListener("TombstoneWatch", {}, 0), monitor_(monitor) {}
    ~Listener() override { stop(); }

    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string&) override {
        if (name && !name->empty()) monitor_->HandleEvent(mask, *name);
    }

private:
    TombstoneMonitorThread* monitor_;
};

TombstoneMonitorThread::TombstoneMonitorThread(kolto::StopSignal& stop) : stop_(stop) {}

TombstoneMonitorThread::~TombstoneMonitorThread() {
    watching_.store(false);
    listener_.reset();
}

std::string TombstoneMonitorThread::ChooseDir(const char* property, const char* fallback) {
    const std::string value = android::base::GetProperty(property, fallback);
    std::string why;
    bool refused = !kolto::ConfinedPath::Relative(value, kDirTree, nullptr, &why);
    if (!refused) {
        // A directory that is not there yet is waited for or reported later;
        // one reached through a link is refused now.
        unique_fd probe = kolto::ConfinedPath::Open(value, kDirTree, O_RDONLY | O_DIRECTORY, 0, &why);
        refused = !probe.ok() && IsRefusal(errno);
    }
    if (!refused) return value;
    ALOGE("%s refused: %s; using the default %s", property, why.c_str(), fallback);
    return fallback;
}

unique_fd TombstoneMonitorThread::WaitOutputDir(const std::string& dir) {
    unique_fd fd;
    int error = 0;
    for (int i = 0; i < kOutDirChecks; ++i) {
        fd = kolto::ConfinedPath::Open(dir, kDirTree, O_RDONLY | O_DIRECTORY, 0, nullptr);
        error = errno;
        if (fd.ok()) break;
        // A second after every failed check, the last one included.
        if (!stop_.Sleep(kOutDirCheckMs)) return {};
    }
    if (!fd.ok()) {
        ALOGE("wait %s timeout, so exit: %s", Shown(paths::Get(dir)).c_str(), strerror(error));
        return {};
    }
    // The directory's creator may still be setting it up.
    if (!stop_.Sleep(kSettleMs)) return {};
    return fd;
}

bool TombstoneMonitorThread::threadLoop() {
    ALOGI("Tombstone Monitor is Start!");
    const std::string inDevice = ChooseDir(kInDirProperty, paths::kTombstoneDir);
    const std::string outDevice = ChooseDir(kOutDirProperty, paths::kNativeCrashTombstoneDir);
    inDir_ = paths::Get(inDevice);
    outDir_ = paths::Get(outDevice);
    outDirFd_ = WaitOutputDir(outDevice);
    if (!outDirFd_.ok()) return false;
    // Copies a killed daemon left half-written.
    kolto::TempName::RemoveLeftovers(outDirFd_.get(), outDir_);

    std::string why;
    inDirFd_ = kolto::ConfinedPath::Open(inDevice, kDirTree, O_RDONLY | O_DIRECTORY, 0, &why);
    if (!inDirFd_.ok()) {
        ALOGE("inotify_add_watch error: %s", why.c_str());
        return false;
    }
    // Watched through the descriptor just resolved, so the watch is on that
    // directory whatever its path now leads to.
    listener_ = std::make_unique<Listener>(this);
    if (listener_->addWatching(inDevice, inDirFd_.get(), kAllEvents) != 0) {
        ALOGE("inotify_add_watch error: %s", strerror(errno));
        listener_.reset();
        return false;
    }
    watching_.store(true);
    return true;
}

void TombstoneMonitorThread::HandleEvent(uint32_t mask, const std::string& name) {
    const std::string& inDir = inDir_;
    const std::string& outDir = outDir_;
    if (name.find(kTombstoneMarker) == std::string::npos) return;
    if (mask & IN_DELETE) {
        ALOGI("Detected deletd file: %s", Shown(name).c_str());
        // unlinkat removes a link itself, never what it points at.
        if (unlinkat(outDirFd_.get(), name.c_str(), 0) != 0) {
            ALOGE("remove path %s failed! info: %s\n", Shown(outDir + name).c_str(), strerror(errno));
        }
    } else if (mask & (IN_CREATE | IN_MODIFY)) {
        ALOGW("Detected creat or modify file: %s", Shown(name).c_str());
        const std::string src = inDir + name;
        const std::string dst = outDir + name;
        if (!copy(src, dst)) ALOGE("Faile to copy file: %s, %s !", Shown(src).c_str(), Shown(dst).c_str());
    }
}

bool TombstoneMonitorThread::copy(const std::string& src, const std::string& dst) {
    // The entry names come from inotify: one component each, never "..".
    // O_NONBLOCK so that a FIFO named like a tombstone cannot hold the
    // monitor; it is refused as not regular just below.
    unique_fd in(TEMP_FAILURE_RETRY(
            openat(inDirFd_.get(), LastComponent(src).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    if (!in.ok()) {
        ALOGW("open file [%s] error: %s", Shown(src).c_str(), strerror(errno));
        return false;
    }
    struct stat st;
    if (fstat(in.get(), &st) != 0) {
        ALOGE("Failed to fstat file: %s, %s", Shown(src).c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        ALOGW("%s is not a regular file, not mirrored", Shown(src).c_str());
        return false;
    }
    off_t length = st.st_size;
    if (length > kMaxMirrorBytes) {
        ALOGW("%s is %lld bytes, only its first %lld are mirrored", Shown(src).c_str(),
              static_cast<long long>(length), static_cast<long long>(kMaxMirrorBytes));
        length = kMaxMirrorBytes;
    }
    if (!CopyInto(in.get(), length, outDirFd_.get(), LastComponent(dst))) {
        ALOGE("Faile to copy file: %s, %s", Shown(src).c_str(), strerror(errno));
        return false;
    }
    ++copies_;
    return true;
}

}  // namespace tarnis
}  // namespace velmar
