#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include <android-base/logging.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"

namespace platform {
namespace {

constexpr size_t kMaxLine = 4096;

std::atomic<int> gStderrLevel{-1};
std::atomic<const char*> gDefaultTag{nullptr};
// Offset of local time from UTC in seconds, and when it was last read. Local
// time conversion takes a libc lock, so the child of a fork must not do it;
// the offset is refreshed only by the process that is not a fork child.
std::atomic<long> gGmtOffset{0};
std::atomic<long> gGmtOffsetReadAt{-1};
std::atomic<bool> gInForkChild{false};

void MarkForkChild() { gInForkChild.store(true, std::memory_order_relaxed); }

// A child that borrows its parent's memory (vfork style) runs on the parent
// thread's thread-local storage: this flag marks that thread while the child
// runs in it, and the parent clears it once the child has gone.
thread_local bool tSpawnedChild = false;

bool InChild() { return gInForkChild.load(std::memory_order_relaxed) || tSpawnedChild; }

struct ForkWatcher {
    ForkWatcher() { pthread_atfork(nullptr, nullptr, MarkForkChild); }
};
ForkWatcher gForkWatcher;

std::mutex& CapturesLock() {
    static auto* lock = new std::mutex;
    return *lock;
}
std::vector<LogCapture*>& Captures() {
    static auto* captures = new std::vector<LogCapture*>;
    return *captures;
}

int StderrLevel() {
    int level = gStderrLevel.load(std::memory_order_relaxed);
    if (level >= 0) return level;
    level = ANDROID_LOG_VERBOSE;
    if (const char* env = getenv("TARNIS_LOG_LEVEL")) {
        switch (env[0]) {
            case 'D': case 'd': level = ANDROID_LOG_DEBUG; break;
            case 'I': case 'i': level = ANDROID_LOG_INFO; break;
            case 'W': case 'w': level = ANDROID_LOG_WARN; break;
            case 'E': case 'e': level = ANDROID_LOG_ERROR; break;
            case 'F': case 'f': level = ANDROID_LOG_FATAL; break;
            case 'S': case 's': level = ANDROID_LOG_SILENT; break;
            default: break;
        }
    }
    gStderrLevel.store(level, std::memory_order_relaxed);
    return level;
}

char PrioLetter(int prio) {
    switch (prio) {
        case ANDROID_LOG_VERBOSE: return 'V';
        case ANDROID_LOG_DEBUG: return 'D';
        case ANDROID_LOG_INFO: return 'I';
        case ANDROID_LOG_WARN: return 'W';
        case ANDROID_LOG_ERROR: return 'E';
        case ANDROID_LOG_FATAL: return 'F';
        case ANDROID_LOG_SILENT: return 'S';
        default: return '?';
    }
}

long LocalOffset(time_t now) {
    if (!InChild()) {
        long readAt = gGmtOffsetReadAt.load(std::memory_order_relaxed);
        if (readAt < 0 || now - readAt >= 60 || now < readAt) {
            struct tm local;
            if (localtime_r(&now, &local) != nullptr) {
                gGmtOffset.store(local.tm_gmtoff, std::memory_order_relaxed);
            }
            gGmtOffsetReadAt.store(now, std::memory_order_relaxed);
        }
    }
    return gGmtOffset.load(std::memory_order_relaxed);
}

// Days since the epoch to month and day (proleptic Gregorian), without libc.
void CivilFromDays(long days, unsigned* month, unsigned* day) {
    days += 719468;
    const long era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
}

// Writes the whole buffer, retrying short writes; no locks, no allocation.
void WriteAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

void Emit(int prio, const char* tag, const char* text) {
    if (tag == nullptr || tag[0] == '\0') tag = DefaultLogTag();
    if (text == nullptr) text = "";
    const int savedErrno = errno;

    if (!InChild()) {
        std::lock_guard<std::mutex> guard(CapturesLock());
        for (LogCapture* capture : Captures()) capture->Append(prio, tag, text);
    }

    if (prio >= StderrLevel()) {
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        const long local = static_cast<long>(ts.tv_sec) + LocalOffset(ts.tv_sec);
        long days = local / 86400;
        long secs = local % 86400;
        if (secs < 0) {
            secs += 86400;
            days -= 1;
        }
        unsigned month = 0, day = 0;
        CivilFromDays(days, &month, &day);
        char line[kMaxLine];
        int prefix = snprintf(line, sizeof(line), "%02u-%02u %02ld:%02ld:%02ld.%03ld %5d %5d %c %-8s: ",
                              month, day, secs / 3600, (secs / 60) % 60, secs % 60,
                              static_cast<long>(ts.tv_nsec / 1000000), static_cast<int>(getpid()),
                              static_cast<int>(syscall(SYS_gettid)), PrioLetter(prio), tag);
        if (prefix < 0) prefix = 0;
        size_t used = std::min(static_cast<size_t>(prefix), sizeof(line) - 2);
        // A message of several lines is printed as several log lines, as
        // logcat shows them; trailing newlines are not lines of their own.
        size_t remaining = strlen(text);
        while (remaining > 0 && text[remaining - 1] == '\n') --remaining;
        const char* cursor = text;
        const char* const stop = text + remaining;
        do {
            const char* end = static_cast<const char*>(memchr(cursor, '\n', stop - cursor));
            if (end == nullptr) end = stop;
            size_t take = std::min(static_cast<size_t>(end - cursor), sizeof(line) - used - 1);
            memcpy(line + used, cursor, take);
            line[used + take] = '\n';
            WriteAll(STDERR_FILENO, line, used + take + 1);
            cursor = end + 1;
        } while (cursor < stop);
    }
    errno = savedErrno;
}

}  // namespace

void SetDefaultLogTag(const std::string& tag) {
    gDefaultTag.store(strdup(tag.c_str()), std::memory_order_release);
    android::base::SetDefaultTag(tag);
}

const char* DefaultLogTag() {
    const char* tag = gDefaultTag.load(std::memory_order_acquire);
    return tag != nullptr ? tag : program_invocation_short_name;
}

void SetStderrLogLevel(int prio) { gStderrLevel.store(prio, std::memory_order_relaxed); }

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> guard(CapturesLock());
    Captures().push_back(this);
}

LogCapture::~LogCapture() {
    std::lock_guard<std::mutex> guard(CapturesLock());
    auto& all = Captures();
    for (auto it = all.begin(); it != all.end(); ++it) {
        if (*it == this) {
            all.erase(it);
            break;
        }
    }
}

void LogCapture::Append(int prio, const char* tag, const char* text) {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.push_back(LogLine{prio, tag, text});
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
}

size_t LogCapture::Count(const std::string& text, const std::string& tag, int prio) const {
    std::lock_guard<std::mutex> guard(lock_);
    size_t count = 0;
    for (const LogLine& line : lines_) {
        if (!tag.empty() && line.tag != tag) continue;
        if (prio != 0 && line.prio != prio) continue;
        if (line.text.find(text) != std::string::npos) ++count;
    }
    return count;
}

bool LogCapture::Contains(const std::string& text, const std::string& tag, int prio) const {
    return Count(text, tag, prio) > 0;
}

bool LogCapture::HasLine(const std::string& text, const std::string& tag, int prio) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const LogLine& line : lines_) {
        if ((tag.empty() || line.tag == tag) && (prio == 0 || line.prio == prio) && line.text == text) return true;
    }
    return false;
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.clear();
}

namespace host {

void MarkSpawnedChild(bool inChild) { tSpawnedChild = inChild; }

}  // namespace host
}  // namespace platform

extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
    platform::Emit(prio, tag, text);
    return 1;
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    char buffer[platform::kMaxLine];
    vsnprintf(buffer, sizeof(buffer), fmt, ap);
    platform::Emit(prio, tag, buffer);
    return 1;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

namespace {

// libbase's LOG and PLOG lines come here, into the same layout as liblog's;
// installed before any static initialiser of the program can log. libbase's
// own floor would drop DEBUG lines the captures of the tests read.
__attribute__((constructor(101))) void InstallLibbaseLogger() {
    android::base::SetMinimumLogSeverity(android::base::VERBOSE);
    android::base::SetLogger([](android::base::LogId, android::base::LogSeverity severity, const char* tag,
                                const char*, unsigned int, const char* message) {
        static const int kPrio[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                                    ANDROID_LOG_WARN,    ANDROID_LOG_ERROR, ANDROID_LOG_FATAL,
                                    ANDROID_LOG_FATAL};
        const size_t index = static_cast<size_t>(severity);
        platform::Emit(index < sizeof(kPrio) / sizeof(kPrio[0]) ? kPrio[index] : ANDROID_LOG_FATAL, tag, message);
    });
}

}  // namespace
