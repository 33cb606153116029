#pragma once

#include <cerrno>
#include <sstream>
#include <string>
#include <utility>

#include <log/log.h>


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
