#define LOG_TAG "BootMonitor"

#include "modules/BootMonitor/BootMonitorThread.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sstream>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/properties.h>
#include <host/WaitForProperty.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"
#include "utils/dump/CaptureLogUtil.h"

namespace android {

namespace paths = velmar::kolto::paths;
using android::base::StringPrintf;
using android::base::unique_fd;

namespace {

constexpr int64_t kBootTimeoutMs = 20 * 60 * 1000;
constexpr int64_t kPeriodMs = 5 * 60 * 1000;
constexpr int64_t kThirdPeriodStartMs = 15 * 60 * 1000;
constexpr int kSecondsPerEarlierFailure = 20;
constexpr int kBootLoopCount = 5;
constexpr std::chrono::milliseconds kPropertyWaitTimeout(10000);
constexpr int kCaptureModeBootTimeout = 100;
constexpr int kCaptureModeTrap = 80;
constexpr off_t kSmallestUsefulCapture = 1024;
constexpr int kServiceLooks = 30;
constexpr int kConnectTries = 30;
constexpr int64_t kRetryMs = 1000;
// A peer that accepted the command but never answers must not hold the
// reboot into recovery back for ever.
constexpr int kStatusTimeoutSeconds = 60;
// How long a sleep or a property wait runs before it looks at the stop again.
constexpr int64_t kStopLookMs = 250;

// The first whitespace-separated words of a small file; false when it does
// not open or is not a regular file (the rescue and cache partitions are
// writable by others than the daemon).
bool ReadWords(const std::string& path, std::string* first, std::string* second = nullptr) {
    constexpr size_t kMaxWordsFile = 4096;
    std::string content;
    if (!velmar::kolto::FileUtil::ReadRegularFile(path, &content, kMaxWordsFile)) return false;
    std::istringstream words(content);
    words >> *first;
    if (second != nullptr) words >> *second;
    return true;
}

void RemoveMarker(const std::string& path, bool withReason) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) return;
    if (withReason) {
        ALOGE("remove path %s failed! info: %s\n", path.c_str(), strerror(errno));
    } else {
        ALOGE("remove path %s failed!\n", path.c_str());
    }
}

// Removes the boot count file; `why` names the step in the error line.
// A count file that is not there fails to go as well, and says so: the
// first boot after a wipe shows up in the log.
void RemoveBootCount(const std::string& path, const char* why) {
    if (unlink(path.c_str()) == 0) return;
    ALOGE("remove path %s failed! info: %s (%s)\n", path.c_str(), strerror(errno), why);
}

// A one-word mode marker: "true" sets `property` to "1" for this boot.
void ConsumeModeMarker(const std::string& path, const char* mayBeSet, const char* property,
                       const char* setFailed, const char* notSet) {
    std::string word;
    if (!ReadWords(path, &word)) {
        ALOGD("%s", notSet);
        return;
    }
    ALOGD("%s", mayBeSet);
    if (word == "true") {
        const int result = property_set(property, "1");
        if (result != 0) ALOGE("%s%d\n", setFailed, result);
    }
    RemoveMarker(path, true);
}

// The unhealthy-boot directory, root-owned and shared with the system group.
// Its ownership is set through a descriptor opened without following links,
// so that a link planted in its place is never changed.
void PrepareDirectory(const std::string& dir) {
    std::string bare = dir;
    while (bare.size() > 1 && bare.back() == '/') bare.pop_back();
    // Captures and extracted logs go in here: a link in its place would carry
    // them wherever it points, so it goes and a real directory is made.
    struct stat st {};
    if (lstat(bare.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && unlink(bare.c_str()) != 0) {
        ALOGE("remove path %s failed! info: %s\n", bare.c_str(), strerror(errno));
    }
    DIR* existing = opendir(dir.c_str());
    if (existing != nullptr) {
        closedir(existing);
        return;
    }
    if (create_dir_if_needed(dir.c_str(), 0775) != 0) {
        ALOGE("create dir %s failed! error: %s\n", dir.c_str(), strerror(errno));
        return;
    }
    unique_fd fd(TEMP_FAILURE_RETRY(open(bare.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    if (!fd.ok() || fchown(fd.get(), 0, kSystemUid) != 0) {
        ALOGE("Failed to chown to user system for path %s, errinfo=%s.", dir.c_str(), strerror(errno));
        return;
    }
    if (fchmod(fd.get(), 0775) != 0) {
        ALOGE("Failed to chmod for path %s, errinfo=%s.", dir.c_str(), strerror(errno));
    }
}

bool AllDigits(const std::string& word) {
    if (word.empty()) return false;
    for (unsigned char c : word) {
        if (!isdigit(c)) return false;
    }
    return true;
}

int64_t NowSteadyMs() { return velmar::kolto::GetClock().SteadyNowMs(); }
long NowEpochSeconds() { return static_cast<long>(velmar::kolto::GetClock().WallNowMs() / 1000); }
void SleepMs(int64_t ms) { velmar::kolto::GetClock().SleepMs(ms); }

// A property wait that a stop ends: a wait for a property cannot be woken, so
// it goes in slices with the stop looked at between them.
bool WaitForPropertyWithin(const velmar::kolto::StopSignal& stop, const std::string& key, const std::string& value,
                           std::chrono::milliseconds timeout) {
    const std::chrono::milliseconds slice(kStopLookMs);
    while (!stop.Requested() && timeout.count() > 0) {
        const std::chrono::milliseconds wait = std::min(timeout, slice);
        if (android::base::WaitForProperty(key, value, wait)) return true;
        timeout -= wait;
    }
    return false;
}

bool SendAll(int fd, const void* data, size_t size) {
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = TEMP_FAILURE_RETRY(send(fd, p, size, MSG_NOSIGNAL));
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

BootMonitorThread::BootMonitorThread()
    : ownStop_(std::make_unique<velmar::kolto::StopSignal>()), stop_(*ownStop_) {}

BootMonitorThread::BootMonitorThread(velmar::kolto::StopSignal& stop) : stop_(stop) {}

bool BootMonitorThread::WaitForProperty(const std::string& key, const std::string& value,
                                        std::chrono::milliseconds timeout) {
    return WaitForPropertyWithin(stop_, key, value, timeout);
}

bool BootMonitorThread::Pause(int64_t ms) {
    // In slices on the process clock: a test clock that moves on each sleep
    // still sees the whole time pass.
    while (ms > 0 && !stop_.Requested()) {
        const int64_t slice = std::min(ms, kStopLookMs);
        SleepMs(slice);
        ms -= slice;
    }
    return !stop_.Requested();
}

std::string BootMonitorThread::Describe() const {
    static const char* const kStages[] = {"preparing",
                                          "trap mode",
                                          "disabled",
                                          "waiting for boot completion",
                                          "boot completed",
                                          "boot loop, to recovery",
                                          "boot timed out, rebooting",
                                          "stopped"};
    const int count = bootCount_.load();
    return StringPrintf("stage: %s\nboot count: %s\ncaptures: %d\n", kStages[static_cast<int>(stage_.load())],
                        count < 0 ? "not counted" : std::to_string(count).c_str(), captures_.load());
}

bool BootMonitorThread::BootCompleted() {
    if (!waitForProperty_("sys.boot_completed", "1", kPropertyWaitTimeout)) return false;
    // Devices without a boot animation never set the display property.
    if (base::GetProperty("sys.boot_display_completed", "DISABLE") == "DISABLE") return true;
    return waitForProperty_("sys.boot_display_completed", "1", kPropertyWaitTimeout);
}

void BootMonitorThread::TrapLoop(std::string& directory, int intervalSeconds) {
    const int64_t start = NowSteadyMs();
    stage_.store(Stage::kTrap);
    while (!stop_.Requested()) {
        const long long seconds = (NowSteadyMs() - start) / 1000;
        ALOGI("(trap mode) boot time: %lld seconds\n", seconds);
        captureBugreport(directory, kCaptureModeTrap, seconds);
        Pause(static_cast<int64_t>(intervalSeconds) * 1000);
    }
    stage_.store(Stage::kStopped);
}

int BootMonitorThread::threadLoop() {
    const bool ab = base::GetBoolProperty("ro.build.ab_update", false);
    std::string dir = paths::Get(paths::kUnhealthyBootLogDir, ab);
    const std::string countPath = paths::Get(paths::kBootCountFile, ab);
    const std::string recordPath = paths::Get(paths::kBootTimeoutRecord, ab);

    PrepareDirectory(dir);
    ConsumeModeMarker(paths::Get(paths::kSafeModeMarker, ab), "Safe Mode may be set.", "ro.sys.safemode",
                      "set RO_SAFEMODE_PROPERTY failed! error code is ", "Safe Mode not set.");
    ConsumeModeMarker(paths::Get(paths::kMaintenanceModeMarker, ab), "Maintenance Mode may be set.",
                      "sys.maintenance_mode", "set MAINTENANCE_MODE_PROP failed! error code is ",
                      "Maintenance Mode not set.");

    const std::string trapPath = paths::Get(paths::kTrapModeMarker, ab);
    std::string trapWord;
    std::string trapInterval;
    if (ReadWords(trapPath, &trapWord, &trapInterval)) {
        ALOGD("Trap Mode may be set.");
        RemoveMarker(trapPath, false);
        if (trapWord == "true") {
            TrapLoop(dir, atoi(trapInterval.c_str()));
            return 0;
        }
    } else {
        ALOGD("Trap Mode not set.");
    }

    std::string word;
    if (!ReadWords(countPath, &word)) {
        ALOGW("Faile to read file: %s, %s", countPath.c_str(), strerror(errno));
        word = "0";
    }
    int count = 0;
    if (word == "disable") {
        ALOGE("explicit disable BootMonitor.");
        count = -1;
    } else if (base::GetBoolProperty("persist.sys.nuvi_spo_test", false)) {
        ALOGE("disable BootMonitor for spo test.");
        count = -1;
    } else if (AllDigits(word) && word.size() <= 9) {
        count = atoi(word.c_str());
    } else {
        ALOGW("An invalid string was read: %s", word.c_str());
        count = 0;
    }
    if (count < 0) {
        ALOGE("exit for invalid boot count.");
        stage_.store(Stage::kDisabled);
        return 0;
    }

    ALOGI("note boot count: %d", count);
    bootCount_.store(count);
    const std::string next = StringPrintf("%d", count + 1);
    RemoveBootCount(countPath, "resetBootCount");
    CaptureLogUtil::create_file_write(countPath.c_str(), next.c_str());

    if (count >= kBootLoopCount) {
        ALOGW("stuck in boot loop, capture bugreport...");
        stage_.store(Stage::kBootLoop);
        RemoveBootCount(countPath, "clearBootCount");
        captureBugreport(dir, count, 0);
        ALOGE("reboot to recovery");
        if (!SetupBcb(kRecoveryCommand)) ALOGD("Failed to setupBcb");
        // Recovery is wanted even when the command could not be left for it.
        property_set("sys.powerctl", "reboot,recovery");
        return 0;
    }

    const long long threshold = static_cast<long long>(count) * kSecondsPerEarlierFailure;
    const int64_t start = NowSteadyMs();
    bool firstCaptureDone = false;
    bool periodDone[4] = {true, false, false, false};
    long long seconds = 0;
    stage_.store(Stage::kWaiting);
    for (;;) {
        const int64_t elapsed = NowSteadyMs() - start;
        seconds = elapsed / 1000;
        if (elapsed >= kBootTimeoutMs) break;
        if (BootCompleted()) {
            stage_.store(Stage::kCompleted);
            property_set("sys.boot_monitor_completed", "1");
            ALOGW("Boot successfully, so BootMonitor exiting.");
            RemoveBootCount(countPath, "clearBootCount");
            return 0;
        }
        if (stop_.Requested()) {
            // No verdict: the count stays raised, as for a daemon that died.
            stage_.store(Stage::kStopped);
            return 0;
        }
        ALOGI("boot time: %lld seconds\n", seconds);
        if (count != 0 && seconds >= threshold && !firstCaptureDone) {
            ALOGW("Failed to boot system for the %d time, capture bugreport...", count);
            captureBugreport(dir, count, seconds);
            firstCaptureDone = true;
        }
        const int64_t period = elapsed / kPeriodMs;
        if (!periodDone[period]) {
            periodDone[period] = true;
            ALOGW("Failed to boot system for the %d time, capture bugreport...", count);
            captureBugreport(dir, count, seconds);
            if (elapsed >= kThirdPeriodStartMs && elapsed < kBootTimeoutMs) {
                property_set("sys.bootmonitor.timeout_three", "true");
            }
        }
    }

    stage_.store(Stage::kTimedOut);
    captureBugreport(dir, count, seconds);
    ALOGD("write bootmonitor record log to file");
    unique_fd record(TEMP_FAILURE_RETRY(
        open(recordPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0664)));
    if (!record.ok()) {
        ALOGE("cannot open bootmonitor record file !");
    } else {
        const std::string line = StringPrintf("%s-%d-%ld\n", "Bootmonitor", count, NowEpochSeconds());
        if (!base::WriteFully(record.get(), line.data(), line.size())) {
            ALOGE("write %s failed: %s", recordPath.c_str(), strerror(errno));
        }
        if (fchown(record.get(), kSystemUid, kSystemUid) != 0) {
            ALOGD("chown %s failed: %s", recordPath.c_str(), strerror(errno));
        }
        fchmod(record.get(), 0664);
    }
    ALOGE("Wait boot completed timeout, so reboot system!");
    property_set("sys.powerctl", "reboot,BootMonitor");
    return 0;
}

void BootMonitorThread::captureBugreport(std::string& directory, int mode, long long value) {
    const std::string device = base::GetProperty("ro.product.device", "unknown");
    const std::string incremental = base::GetProperty("ro.build.version.incremental", "unknown");
    const long now = NowEpochSeconds();
    std::string name;
    if (mode == kCaptureModeBootTimeout) {
        name = StringPrintf("bm_tarnboot_timeout_%lld_%s_%s_%ld.zip", value, device.c_str(), incremental.c_str(),
                            now);
    } else if (mode == kCaptureModeTrap) {
        name = StringPrintf("bm_trap_N_%s_%s_%ld.zip", device.c_str(), incremental.c_str(), now);
    } else if (mode < kBootLoopCount) {
        name = StringPrintf(value < 300 ? "bm_inc_%d_%lld_%s_%s_%ld.zip" : "bm_timeout_%d_%lld_%s_%s_%ld.zip", mode,
                            value, device.c_str(), incremental.c_str(), now);
    } else {
        name = StringPrintf("bm_rcy_%d_%s_%s_%ld.zip", mode, device.c_str(), incremental.c_str(), now);
    }
    const std::string path = directory + "/" + name;
    CaptureLogUtil::dump_lite_bugreport(directory.c_str(), path.c_str());
    captures_.fetch_add(1);

    const std::string written = directory + name;
    bool keep = false;
    {
        unique_fd fd(TEMP_FAILURE_RETRY(open(written.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW)));
        struct stat st {};
        if (!fd.ok()) {
            ALOGW("Faile to open file: %s, %s", written.c_str(), strerror(errno));
        } else if (fstat(fd.get(), &st) != 0) {
            ALOGW("Faile to read file stat: %s, %s", written.c_str(), strerror(errno));
        } else if (st.st_size < kSmallestUsefulCapture) {
            ALOGW("log too small, ready to delete.");
        } else {
            keep = true;
        }
    }
    if (!keep) {
        if (unlink(written.c_str()) != 0 && errno != ENOENT) {
            ALOGE("remove path %s failed! info: %s\n", written.c_str(), strerror(errno));
        }
    } else {
        // Only the newest capture of each kind stays; the failed boot's logs
        // and captures of other kinds are left alone.
        const std::string prefix = name.size() < 7 ? "bm_" : name.substr(0, 6);
        auto exclude = [&path, &prefix](const char* entry, bool) {
            const std::string entryName(entry);
            const bool sameKind = entryName.rfind(prefix, 0) == 0 || entryName.rfind("bugreport", 0) == 0;
            return !(sameKind && path.find(entryName) == std::string::npos);
        };
        if (delete_dir_contents(directory.c_str(), false, exclude) != 0) {
            LOG(ERROR) << "failed delete dir content " << directory << " :" << strerror(errno);
        }
    }
    ALOGI("Capture lite bugreport complete: %s", path.c_str());
}

bool BootMonitorThread::SetupBcb(const std::string& command) {
    base::SetProperty("ctl.stop", "setup-bcb");
    base::SetProperty("ctl.stop", "clear-bcb");
    base::SetProperty("ctl.stop", "uncrypt");
    for (int look = 0; look < kServiceLooks; ++look) {
        const bool running = base::GetProperty("init.svc.setup-bcb", "") == "running" ||
                             base::GetProperty("init.svc.clear-bcb", "") == "running" ||
                             base::GetProperty("init.svc.uncrypt", "") == "running";
        if (!running) break;
        if (!Pause(kRetryMs)) return false;
    }
    base::SetProperty("ctl.start", "setup-bcb");
    if (!Pause(kRetryMs)) return false;

    const char* const socketName = paths::kUncryptSocket;
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) {
        ALOGD("Failed to open %s socket: %s", socketName, strerror(errno));
        base::SetProperty("ctl.stop", "setup-bcb");
        return false;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string socketPath = paths::Get(socketName);
    if (socketPath.size() >= sizeof(address.sun_path)) {
        ALOGE("Failed to connect %s: path too long", socketPath.c_str());
        return false;
    }
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    bool connected = false;
    for (int attempt = 0; attempt < kConnectTries; ++attempt) {
        if (TEMP_FAILURE_RETRY(connect(fd.get(), reinterpret_cast<struct sockaddr*>(&address),
                                       sizeof(address))) == 0) {
            connected = true;
            break;
        }
        if (attempt + 1 < kConnectTries && !Pause(kRetryMs)) return false;
    }
    if (!connected) return false;

    const uint32_t size = htonl(static_cast<uint32_t>(command.size()));
    if (!SendAll(fd.get(), &size, sizeof(size))) {
        ALOGE("Failed send message size to socket: [%s], error info: %s", socketName, strerror(errno));
        return false;
    }
    if (!SendAll(fd.get(), command.data(), command.size())) {
        ALOGE("Failed send message to socket: [%s], error info: %s", socketName, strerror(errno));
        return false;
    }
    struct timeval timeout {};
    timeout.tv_sec = kStatusTimeoutSeconds;
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    // The first of its bytes is awaited with the stop as well.
    struct pollfd waits[2] = {{fd.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
    const int ready = TEMP_FAILURE_RETRY(poll(waits, stop_.fd() >= 0 ? 2 : 1, kStatusTimeoutSeconds * 1000));
    if (stop_.Requested()) return false;
    uint32_t status = 0;
    if (ready == 0) errno = EAGAIN;  // what the receive time-out says
    if (ready > 0) errno = 0;
    if (ready <= 0 || !base::ReadFully(fd.get(), &status, sizeof(status))) {
        if (errno == 0) errno = ECONNRESET;
        ALOGE("Failed read status from socket: [%s], error info: %s", socketName, strerror(errno));
        return false;
    }
    status = ntohl(status);
    bool confirmed = true;
    if (status == 0) {
        ALOGD("setup-bcb response %d", static_cast<int>(status));
        confirmed = false;
    }
    base::SetProperty("ctl.stop", "setup-bcb");
    return confirmed;
}

}  // namespace android
