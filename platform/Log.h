#pragma once

#include <cerrno>
#include <cstdarg>
#include <sstream>
#include <string>
#include <utility>

// The platform log. On a device these are liblog's and libbase's; on the host
// every line goes to standard error in logcat's threadtime layout:
//   MM-DD HH:MM:SS.mmm  PID  TID L TAG: message
// Writing a line takes no lock and allocates nothing, so it is safe in a child
// between fork and exec.

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

extern "C" {
// A null or empty tag means the default tag (the program's name).
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));
int __android_log_write(int prio, const char* tag, const char* text);
}

#define ALOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, LOG_TAG, __VA_ARGS__)
#define ALOGD(...) __android_log_print(ANDROID_LOG_DEBUG, LOG_TAG, __VA_ARGS__)
#define ALOGI(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace platform {

// The tag used when a caller gives none; the program's name unless set.
void SetDefaultLogTag(const std::string& tag);
const char* DefaultLogTag();

// Lines below this priority are not printed to standard error (they still
// reach log captures). Defaults to $TARNIS_LOG_LEVEL (V, D, I, W, E) or V.
void SetStderrLogLevel(int prio);

}  // namespace platform

namespace android {
namespace base {

enum LogSeverity { VERBOSE, DEBUG, INFO, WARNING, ERROR, FATAL_WITHOUT_ABORT, FATAL };

// One LOG(...) statement: collects the stream and logs it when destroyed;
// FATAL aborts the process after logging.
class LogMessage {
public:
    LogMessage(LogSeverity severity, const char* tag, int savedErrno);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;
    std::ostream& stream() { return buffer_; }

private:
    LogSeverity severity_;
    const char* tag_;
    int errno_;  // -1 when the line is not a PLOG
    std::ostringstream buffer_;
};

}  // namespace base
}  // namespace android

#define LOG(severity) \
    ::android::base::LogMessage(::android::base::severity, nullptr, -1).stream()
#define PLOG(severity) \
    ::android::base::LogMessage(::android::base::severity, nullptr, errno).stream()

#define CHECK(cond)                                                                 \
    if (__builtin_expect(!!(cond), 1)) {                                            \
    } else                                                                          \
        ::android::base::LogMessage(::android::base::FATAL, nullptr, -1).stream()   \
            << "Check failed: " #cond " "

#define TARNIS_CHECK_OP(lhs, rhs, op)                                               \
    for (auto _values = ::std::make_pair(lhs, rhs);                                 \
         !(_values.first op _values.second);)                                       \
    ::android::base::LogMessage(::android::base::FATAL, nullptr, -1).stream()       \
        << "Check failed: " #lhs " " #op " " #rhs " (" #lhs "=" << _values.first    \
        << ", " #rhs "=" << _values.second << ") "

#define CHECK_EQ(a, b) TARNIS_CHECK_OP(a, b, ==)
#define CHECK_NE(a, b) TARNIS_CHECK_OP(a, b, !=)
#define CHECK_LE(a, b) TARNIS_CHECK_OP(a, b, <=)
#define CHECK_LT(a, b) TARNIS_CHECK_OP(a, b, <)
#define CHECK_GE(a, b) TARNIS_CHECK_OP(a, b, >=)
#define CHECK_GT(a, b) TARNIS_CHECK_OP(a, b, >)
