#define LOG_TAG "dorvad"

// The capture dumps: naming and heading capture files, running their
// actions, the kernel log, native core dumps, ANR traces and the exchanges
// with the platform's bug-report service.

#include <dirent.h>
#include <fcntl.h>
#include <sys/klog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "utils/Clock.h"
#include <log/log.h>
#include <android-base/properties.h>
#include <host/Host.h>
#include <cutils/sockets.h>
#include "utils/StringUtil.h"
#include "utils/dump/CaptureLogUtilInternal.h"

namespace android {
namespace {

// Types, headlines, actions, parameters and attachment paths come from the
// client that asked for the capture.
using velmar::kolto::StringUtil;

constexpr char kSupportAction[] =
    "cat,logcat,dumpsys,ps,top,df,iptables-wrapper-1.0,ip6tables-wrapper-1.0,netstat,getprop,dmesg";
constexpr char kHeadlineUnsafe[] = "\"%&'()*/:<>?\\{|}";
constexpr char kDefaultBase[] = "/data/dorva/";
constexpr char kLocalRecordBase[] = "/data/nuvilog/stability/reboot/";
constexpr char kNativeCrashDir[] = "/data/nuvilog/stability/nativecrash";
constexpr char kKoltoLogs[] = "/data/vendor/diag/last_kmsg,/data/vendor/diag/last_tzlog";
constexpr char kUidErrors[] = "/data/system/uiderrors.txt";
constexpr char kAnrDir[] = "/data/anr/";
constexpr char kBugreportService[] = "tarnBugreportState";
constexpr char kLiteBugreportService[] = "nuvibmdump";
constexpr char kDumpstateSocket[] = "dumpstate";
constexpr uid_t kSystemId = 1000;
constexpr int kOfflineSlots = 5;
constexpr int kConnectTries = 20;
constexpr int kConnectPauseMs = 500;
constexpr int kCoredumpPolls = 15;
constexpr size_t kMaxAnrTraces = 10;
constexpr long kWatchdogTimestampLimit = 10799999;
const std::string kRule(56, '=');
// klogctl actions (the C library does not name them).
constexpr int kSyslogReadAll = 3;
constexpr int kSyslogSizeBuffer = 10;

class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : fd_(fd) {}
    ~ScopedFd() {
        if (fd_ >= 0) close(fd_);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

std::string LocalTime(const char* format) {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[64];
    strftime(text, sizeof(text), format, &local);
    return text;
}

// Parameters are split on "," and " " alike; empty fields are dropped.
std::vector<std::string> ActionCommand(const std::string& action, const std::string& param) {
    std::vector<std::string> args{action};
    std::string field;
    for (char c : param) {
        if (c == ',' || c == ' ') {
            if (!field.empty()) args.push_back(field);
            field.clear();
        } else {
            field += c;
        }
    }
    if (!field.empty()) args.push_back(field);
    return args;
}

// The time-out of a whitelisted action: short on release builds, long where
// testers and developers want complete captures.
int ActionTimeout() {
    if (isUnrelease() || ismtbftest() || isomnitest()) {
        const CaptureLogUtil::Timeouts defaults = capture_internal::GetTimeouts();
        return CaptureLogUtil::isTestMode() ? defaults.testModeSeconds : defaults.defaultSeconds;
    }
    return 5;
}

// Makes a capture directory: mode 0777, owned by the system user.
bool MakeCaptureDir(const std::string& path, const char* failure) {
    if (create_dir_if_needed(path.c_str(), 0777) != 0) {
        ALOGE("%s%s :%s", failure, path.c_str(), strerror(errno));
        return false;
    }
    if (chown(path.c_str(), kSystemId, kSystemId) != 0) {
        ALOGD("chown %s failed: %s", path.c_str(), strerror(errno));
    }
    chmod(path.c_str(), 0777);
    return true;
}

bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Picks the offline slot: the first whose archive is absent, else the one
// with the oldest archive (the earliest slot on a tie).
int ChooseOfflineSlot(const std::string& logDir, const std::string& type) {
    int oldest = -1;
    struct timespec oldestTime = {0, 0};
    for (int slot = 0; slot < kOfflineSlots; ++slot) {
        char name[512];
        snprintf(name, sizeof(name), "%s/%s_%d", logDir.c_str(), type.c_str(), slot);
        const std::string zip = std::string(name) + ".zip";
        struct stat st;
        if (stat(zip.c_str(), &st) != 0) {
            if (errno == ENOENT) return slot;
            continue;
        }
        if (oldest < 0 || st.st_mtim.tv_sec < oldestTime.tv_sec ||
            (st.st_mtim.tv_sec == oldestTime.tv_sec && st.st_mtim.tv_nsec < oldestTime.tv_nsec)) {
            oldest = slot;
            oldestTime = st.st_mtim;
        }
    }
    if (oldest < 0) {
        ALOGE("Failed to find a valid tombstone, default to using tombstone 0.\n");
        return 0;
    }
    return oldest;
}

// Connects to the bug-report service's socket, which its service may still
// be creating: 20 tries, half a second apart.
int ConnectDumpstate() {
    for (int attempt = 0; attempt < kConnectTries; ++attempt) {
        const int fd = socket_local_client(kDumpstateSocket, ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM);
        if (fd >= 0) return fd;
        if (attempt + 1 < kConnectTries) {
            const int saved = errno;
            velmar::kolto::GetClock().SleepMs(kConnectPauseMs);
            errno = saved;
        }
    }
    return -1;
}

void SetTimeout(int fd, int option, int seconds) {
    struct timeval tv = {seconds, 0};
    setsockopt(fd, SOL_SOCKET, option, &tv, sizeof(tv));
}

// Asks the bug-report service for a full report into `logDir`; returns the
// report's path, or "" when there is none.
std::string RequestBugreport(const std::string& logDir, const std::string& param) {
    base::SetProperty("ctl.start", kBugreportService);
    std::string report;
    const std::string message = logDir + "|" + param;
    ScopedFd socketFd(ConnectDumpstate());
    if (socketFd.get() < 0) {
        ALOGE("Failed to connect dumpstate socket.");
    } else {
        struct timeval tv = {50, 0};
        if (setsockopt(socketFd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
            setsockopt(socketFd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0) {
            ALOGE("failed to set recv/send timeout options.");
        }
        size_t sent = 0;
        bool ok = true;
        while (sent < message.size()) {
            const ssize_t n = send(socketFd.get(), message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                ALOGE("send client msg failed.");
                ok = false;
                break;
            }
            sent += static_cast<size_t>(n);
        }
        if (ok) {
            // At most 511 bytes, so the reply is always terminated.
            char reply[512];
            memset(reply, 0, sizeof(reply));
            ssize_t n;
            do {
                n = recv(socketFd.get(), reply, sizeof(reply) - 1, 0);
            } while (n < 0 && errno == EINTR);
            if (n < 0) {
                ALOGE("recv server msg failed. error info: %s", strerror(errno));
            } else {
                ALOGI("recv response from dumpstate: %s", reply);
                std::string path(reply);
                while (!path.empty() && (path.back() == '\n' || path.back() == '\r')) path.pop_back();
                path = platform::DevicePath(path);
                struct stat st;
                if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
                    report = path;
                } else {
                    ALOGE("file stat get failed: %s", strerror(errno != 0 ? errno : EINVAL));
                }
            }
        }
    }
    base::SetProperty("ctl.stop", kBugreportService);
    return report;
}

// Waits for the core dump of one native crash to appear and stop growing.
void WaitForCoredump(const std::string& file) {
    const bool armed = base::GetBoolProperty("persist.sys.device_config_gki", false) ||
                       base::GetBoolProperty("persist.sys.enable_nuvi_coredump", false);
    velmar::kolto::Clock& clock = velmar::kolto::GetClock();
    if (armed) {
        for (int attempt = 1; attempt <= 3; ++attempt) {
            if (FileExists(file)) {
                ALOGE("coredump(%s) file has created\n", StringUtil::ForLog(file).c_str());
                break;
            }
            ALOGE("wait coredump(%s) created %d times \n", StringUtil::ForLog(file).c_str(), attempt);
            clock.SleepMs(1000);
        }
    }
    long previous = -1;
    for (int poll = 1; poll <= kCoredumpPolls; ++poll) {
        struct stat st;
        if (stat(file.c_str(), &st) != 0) {
            ALOGE("coredump(%s) file stat fail: %s\n", StringUtil::ForLog(file).c_str(), strerror(errno));
            return;
        }
        const long size = static_cast<long>(st.st_size);
        ALOGE("wait coredump(%s) %d times, filesize=%ld\n", StringUtil::ForLog(file).c_str(), poll, size);
        if (size >= 1 && size == previous) {
            ALOGE("dump coredump(%s) completed, filesize:%ld\n", StringUtil::ForLog(file).c_str(), size);
            return;
        }
        previous = size;
        if (poll == kCoredumpPolls) {
            ALOGE("dump coredump(%s) tiemout, filesize=%ld\n", StringUtil::ForLog(file).c_str(), size);
            return;
        }
        clock.SleepMs(1000);
    }
}

void AppendText(const std::string& path, const std::string& text) {
    ScopedFile file(fopen(path.c_str(), "ae"));
    if (!file) {
        ALOGE("failed to open log file %s :%s", path.c_str(), strerror(errno));
        return;
    }
    fputs(text.c_str(), file.get());
}

void DoDmesg(const std::string& path) {
    ScopedFile file(fopen(path.c_str(), "ae"));
    if (!file) {
        ALOGE("failed to open log file %s :%s", path.c_str(), strerror(errno));
        return;
    }
    const int size = klogctl(kSyslogSizeBuffer, nullptr, 0);
    if (size < 1) {
        fprintf(file.get(), "Unexpected klogctl return value: %d\n\n", size);
        return;
    }
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(size) + 1]);
    if (!buffer) {
        fputs("memory allocation failed\n\n", file.get());
        return;
    }
    const int length = klogctl(kSyslogReadAll, buffer.get(), size);
    if (length < 0) {
        fputs("klogctl failure\n\n", file.get());
        return;
    }
    buffer[length] = '\0';
    fputs("------ KERNEL LOG (dmesg) ------\n", file.get());
    fwrite(buffer.get(), 1, static_cast<size_t>(length), file.get());
    fputs("\n\n", file.get());
}

// The first "Build fingerprint: '...'" of a trace's head, quotes on one line
// (what the pattern .*?Build fingerprint: '(.*?)'.*? finds).
bool FindFingerprint(const std::string& head, std::string* fingerprint) {
    static const std::string kKey = "Build fingerprint: '";
    for (size_t at = head.find(kKey); at != std::string::npos; at = head.find(kKey, at + 1)) {
        const size_t begin = at + kKey.size();
        const size_t end = head.find_first_of("'\n\r", begin);
        if (end != std::string::npos && head[end] == '\'') {
            *fingerprint = head.substr(begin, end - begin);
            return true;
        }
    }
    return false;
}

// ANR traces of the running build, newest first, at most ten. The caller
// closes the descriptors.
std::vector<DumpData> CollectAnrTraces() {
    std::vector<DumpData> kept;
    const std::string stamp = base::GetProperty("sys.service.watchdog.timestamp", "");
    ALOGW("get watchdog timestamp: %s\n", stamp.c_str());
    if (stamp.empty()) {
        ALOGW("failed to get watchdog timestamp prop ");
        return kept;
    }
    // Digits only, and compared without parsing past the limit's length.
    if (stamp.find_first_not_of("0123456789") != std::string::npos || stamp.size() > 8 ||
        std::stol(stamp) > kWatchdogTimestampLimit) {
        return kept;
    }
    ALOGW("==================Start Get data/anr log for BootMonitor======================\n");
    const std::string fingerprint = base::GetProperty("ro.build.fingerprint", "");
    const std::string anrDir = platform::DevicePath(kAnrDir);
    DIR* dir = opendir(anrDir.c_str());
    if (dir == nullptr) {
        ALOGE("Unable to open directory %s: %s\n", anrDir.c_str(), strerror(errno));
        return kept;
    }
    while (struct dirent* entry = readdir(dir)) {
        const std::string path = anrDir + entry->d_name;
        struct stat lst;
        if (lstat(path.c_str(), &lst) != 0 || !S_ISREG(lst.st_mode)) continue;
        chmod(path.c_str(), 0660);
        const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            ALOGE("Unable to open dump file %s: %s\n", path.c_str(), strerror(errno));
            continue;
        }
        struct stat st;
        if (fstat(fd, &st) != 0) {
            ALOGE("Unable to stat dump file %s: %s\n", path.c_str(), strerror(errno));
            close(fd);
            continue;
        }
        char head[1024];
        ssize_t n;
        do {
            n = read(fd, head, sizeof(head));
        } while (n < 0 && errno == EINTR);
        const std::string text(head, n > 0 ? static_cast<size_t>(n) : 0);
        std::string traceFingerprint;
        if (!FindFingerprint(text, &traceFingerprint)) {
            ALOGE("Faild to match %s\n", path.c_str());
            close(fd);
            continue;
        }
        ALOGE("=============match success!!!=============\n");
        if (traceFingerprint != fingerprint) {
            ALOGE("read file for %d byte, build.fingerprint prop mismatch\n", static_cast<int>(text.size()));
            close(fd);
            continue;
        }
        kept.push_back(DumpData{entry->d_name, fd, st.st_mtim});
    }
    closedir(dir);
    std::sort(kept.begin(), kept.end(), NewerDumpFirst);
    while (kept.size() > kMaxAnrTraces) {
        close(kept.back().fd);
        kept.pop_back();
    }
    return kept;
}

// Removes the bug-report leftovers ("tarnBugreport*") of a log directory.
void DeleteBugreportLeftovers(const std::string& logDir) {
    DIR* dir = opendir(logDir.c_str());
    if (dir == nullptr) {
        ALOGE("Error opening directory: %s", logDir.c_str());
        return;
    }
    std::vector<std::string> doomed;
    while (struct dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, "tarnBugreport", 13) == 0) doomed.push_back(logDir + "/" + entry->d_name);
    }
    closedir(dir);
    for (const std::string& path : doomed) {
        if (remove(path.c_str()) != 0) ALOGE("failed to remove %s, error: %s", path.c_str(), strerror(errno));
    }
}

}  // namespace

bool CaptureLogUtil::isSupportAction(const std::string& action) {
    return !action.empty() && strstr(kSupportAction, action.c_str()) != nullptr;
}

std::string CaptureLogUtil::sanitizeHeadline(const std::string& headline) {
    if (headline.empty()) return "null";
    std::string clean = headline;
    for (char& c : clean) {
        if (c != '\0' && strchr(kHeadlineUnsafe, c) != nullptr) c = 'X';
    }
    return clean;
}

void CaptureLogUtil::dump_all(String16& type16, String16& headline16, Vector<String16>& actions,
                              Vector<String16>& params, bool offline, int id, bool useId,
                              String16& where16, Vector<String16>& files, bool isRecordInLocal) {
    ALOGD("isRecordInLocal is %s\n", isRecordInLocal ? "true" : "false");
    if (actions.empty() || params.size() != actions.size()) {
        ALOGE("Error in dump: actions or params exception.");
        return;
    }
    const std::string type = String8(type16);
    const std::string headline = sanitizeHeadline(String8(headline16));
    const std::string where = String8(where16);

    std::string base;
    if (type == "RescuePartyLog" || type == "BootFailure") {
        base = where;
    } else if (id < 0 && isRecordInLocal && !isUnrelease() && !ismtbftest() && !isomnitest()) {
        base = kLocalRecordBase;
    } else {
        base = kDefaultBase;
    }
    // The limit is on the device path: the sandbox root is not part of it.
    if (base.size() + type.size() >= 100) {
        ALOGE("The length of where or type is too long and the type is %s\n", StringUtil::ForLog(type).c_str());
        return;
    }
    const bool localRecord = base == kLocalRecordBase;
    base = platform::DevicePath(base);

    std::string logDir;
    if (localRecord) {
        if (create_dir_if_needed(base.c_str(), 0777) != 0) {
            ALOGE("failed to create log dir %s :%s", base.c_str(), strerror(errno));
            return;
        }
        logDir = base;
    } else {
        const std::string typeDir = base + "/" + type;
        if (!MakeCaptureDir(typeDir, "failed to create log dir ")) return;
        logDir = typeDir + "/" + (offline ? "offline" : "online");
        if (!MakeCaptureDir(logDir, "failed to create dir ")) return;
    }
    ALOGD("logfile_template:xline_dir=%s", StringUtil::ForLog(logDir).c_str());

    char name[1024];
    int fd;
    if (offline) {
        const int slot = ChooseOfflineSlot(logDir, type);
        snprintf(name, sizeof(name), "%s/%s_%s_%d", logDir.c_str(), type.c_str(), headline.c_str(), slot);
        fd = open(name, O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    } else {
        const std::string idText = (id >= -2 && useId) ? std::to_string(id) : "null";
        const time_t now = time(nullptr);
        srand(static_cast<unsigned>(now));
        snprintf(name, sizeof(name), "%s/%s_%s_%s_%s_%s_%lu_%d", logDir.c_str(), idText.c_str(), type.c_str(),
                 headline.c_str(), base::GetProperty("ro.product.device", "").c_str(),
                 base::GetProperty("ro.build.version.incremental", "unknown").c_str(),
                 static_cast<unsigned long>(now), rand());
        fd = open(name, O_CREAT | O_TRUNC | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    }
    if (fd < 0) {
        ALOGE("failed to open tombstone file '%s': %s\n", StringUtil::ForLog(name).c_str(), strerror(errno));
        return;
    }
    if (fchown(fd, kSystemId, kSystemId) != 0) ALOGD("chown %s failed: %s", name, strerror(errno));
    fchmod(fd, 0666);
    close(fd);
    const std::string path = name;

    ALOGI("dump_all path = %s", StringUtil::ForLog(path).c_str());
    {
        ScopedFile file(fopen(path.c_str(), "ae"));
        if (!file) {
            ALOGE("failed to open log file %s :%s", path.c_str(), strerror(errno));
            return;
        }
        fprintf(file.get(), "%s\n== date: %s\n== headline: %s\n== debuggable: %s\n== hwlevel: %s\n%s\n",
                kRule.c_str(), LocalTime("%Y-%m-%d %H:%M:%S").c_str(), headline.c_str(),
                base::GetProperty("ro.debuggable", "0").c_str(),
                base::GetProperty("ro.boot.hwlevel", "unkown").c_str(), kRule.c_str());
    }
    run_command({"uptime"}, path.c_str(), 1);

    if (type == "ne" && !files.empty()) {
        for (const String16& entry : files) {
            const std::string file = platform::DevicePath(String8(entry));
            if (file.find(kNativeCrashDir) != std::string::npos) WaitForCoredump(file);
        }
    }

    int compressTimeout = 120;
    bool wantBugreport = false;
    std::string bugreportParam;
    for (size_t i = 0; i < actions.size(); ++i) {
        const std::string action = String8(actions[i]);
        const std::string param = String8(params[i]);
        ALOGE("dump begin path=%s (%s %s) id=%d", StringUtil::ForLog(path).c_str(),
              StringUtil::ForLog(action).c_str(), StringUtil::ForLog(param).c_str(), id);
        if (action == "do_dumpheap") {
            compressTimeout = 600;
        } else if (action == "do_dmesg") {
            DoDmesg(path);
        } else if (action == "cat" && param.find(kKoltoLogs) != std::string::npos) {
            ALOGE("There is no kolto on this device");
            AppendText(path, "------ cat(" + param + ") ------\ncan not cat this file because there is no kolto.\n");
        } else if (action == "tarnbugreport") {
            wantBugreport = true;
            bugreportParam = param;
        } else if (isSupportAction(action)) {
            run_command(ActionCommand(action, param), path.c_str(), ActionTimeout());
        }
    }

    std::string bugreport;
    if (wantBugreport) {
        bugreport = RequestBugreport(logDir, bugreportParam);
        if (!bugreport.empty()) files.push_back(String16FromUtf8(bugreport));
    }

    if (type == "hangTemp") return;
    do_compress(path.c_str(), where.empty() ? nullptr : where.c_str(), &files, compressTimeout, isRecordInLocal);
    if (remove(path.c_str()) != 0) ALOGE("failed to remove %s, error: %s", path.c_str(), strerror(errno));
    if (!bugreport.empty()) {
        if (remove(bugreport.c_str()) != 0) {
            ALOGE("failed to remove %s, error: %s", bugreport.c_str(), strerror(errno));
        }
        DeleteBugreportLeftovers(logDir);
    }
}

void CaptureLogUtil::dump_by_power(Vector<String16> actions, Vector<String16> params, const char* rawPath,
                                   int timeoutSeconds) {
    if (params.size() < actions.size()) {
        ALOGE("dump_by_power: %zu actions but only %zu params", actions.size(), params.size());
        return;
    }
    const std::string path = platform::DevicePath(rawPath);
    for (size_t i = 0; i < actions.size(); ++i) {
        const std::string action = String8(actions[i]);
        const std::string param = String8(params[i]);
        if (isSupportAction(action)) {
            ALOGE("dump begin path=%s (%s %s)", StringUtil::ForLog(path).c_str(), StringUtil::ForLog(action).c_str(),
                  StringUtil::ForLog(param).c_str());
            run_command(ActionCommand(action, param), path.c_str(), timeoutSeconds);
        } else {
            ALOGE("dump_by_power: action '%s' not in SUPPORT_ACTION whitelist, skipping",
                  StringUtil::ForLog(action).c_str());
        }
    }
}

void CaptureLogUtil::dump_for_actions(const char* rawOutDir, const char* rawPath,
                                      std::vector<DumpAction>& actions) {
    const std::string outDir = platform::DevicePath(rawOutDir);
    const std::string path = platform::DevicePath(rawPath);
    {
        ScopedFile file(fopen(path.c_str(), "ae"));
        if (!file) {
            ALOGE("failed to open %s :%s", path.c_str(), strerror(errno));
        } else {
            fprintf(file.get(), "%s\n=== Date: %s ===\n%s\n", kRule.c_str(),
                    LocalTime("%Y-%m-%d %H:%M:%S").c_str(), kRule.c_str());
        }
    }
    for (const DumpAction& action : actions) {
        if (!action.title.empty()) AppendText(path, action.title + "\n");
        run_command(action.command, path.c_str(), action.timeout);
    }

    std::vector<DumpData> traces = CollectAnrTraces();
    Vector<String16> attachments{String16FromUtf8(kUidErrors)};
    for (const DumpData& trace : traces) attachments.push_back(String16FromUtf8(kAnrDir + trace.name));
    const int result = do_compress(path.c_str(), outDir.c_str(), &attachments, 5, false);
    for (const DumpData& trace : traces) close(trace.fd);
    if (result == 0) {
        if (remove(path.c_str()) != 0) ALOGE("failed to remove %s, error: %s", path.c_str(), strerror(errno));
    } else {
        const std::string copy = outDir + "/uiderrors.txt";
        copy_file(platform::DevicePath(kUidErrors).c_str(), copy.c_str());
    }
}

void CaptureLogUtil::dump_lite_bugreport(const char* target, const char* rawPath) {
    const std::string path = platform::DevicePath(rawPath);
    {
        ScopedFd out(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0664));
        if (out.get() < 0) {
            ALOGE("failed to create %s: %s", path.c_str(), strerror(errno));
        } else {
            if (fchown(out.get(), 0, kSystemId) != 0) ALOGD("chown %s failed: %s", path.c_str(), strerror(errno));
            fchmod(out.get(), 0664);
        }
    }
    const std::string record = platform::DevicePath(base::GetBoolProperty("ro.build.ab_update", false)
                                                        ? "/mnt/rescue/dorva/bootmonitor_log.txt"
                                                        : "/cache/dorva/bootmonitor_log.txt");
    {
        ScopedFd recordFd(open(record.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0664));
        if (recordFd.get() < 0) {
            ALOGE("Failed to create recovery_bugreport_path.txt file %s", strerror(errno));
            return;
        }
        if (fchown(recordFd.get(), 0, kSystemId) != 0) ALOGD("chown %s failed: %s", record.c_str(), strerror(errno));
        fchmod(recordFd.get(), 0664);
        if (write(recordFd.get(), path.data(), path.size()) != static_cast<ssize_t>(path.size())) {
            ALOGE("failed to write %s: %s", record.c_str(), strerror(errno));
        }
    }

    base::SetProperty("sys.nuvi.bm_zip", std::string("@") + (target != nullptr ? target : ""));
    base::SetProperty("ctl.start", kLiteBugreportService);
    ScopedFd socketFd(ConnectDumpstate());
    if (socketFd.get() < 0) {
        ALOGE("Failed to connect dumpstate socket: %s", strerror(errno));
    } else {
        if (fcntl(socketFd.get(), F_SETFD, FD_CLOEXEC) != 0) {
            ALOGE("Failed to set the flag of opened file descriptor: %s", strerror(errno));
        }
        SetTimeout(socketFd.get(), SO_RCVTIMEO, 30);
        char reply[256];
        size_t got = 0;
        errno = 0;
        while (got < 255) {
            const ssize_t n = recv(socketFd.get(), reply + got, 255 - got, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        reply[got] = '\0';
        if (got < 255) {
            ALOGE("Read buf failed: %s", errno != 0 ? strerror(errno) : "end of stream");
        } else {
            ALOGD("read response from dumpstate: %s", reply);
        }
    }
    base::SetProperty("ctl.stop", kLiteBugreportService);
    base::SetProperty("sys.nuvi.bm_zip", "");
}

}  // namespace android
