#pragma once

// The binder pool's own records, shared by the files that implement
// BinderProcess: its lifecycle and serving loop (BinderProcess.cpp), the
// accept loop and connection accounting (BinderProcessAccept.cpp), and the
// reading and dispatch of transactions (BinderProcessDispatch.cpp).

#include "platform/binder/BinderProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <android-base/logging.h>

#include <host/LogRateLimiter.h>
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireDecoder.h"
#include "platform/binder/WireIo.h"

namespace android {
namespace binder_pool {

inline constexpr uint64_t kSweepId = 1;
inline constexpr uint64_t kResumeId = 2;
inline constexpr uint64_t kReadyId = 3;
// A listener that ran out of descriptors rests this long before trying again.
inline constexpr int kAcceptPauseMs = 100;
inline constexpr int64_t kLogIntervalMs = 10000;

using Clock = std::chrono::steady_clock;

inline std::string Seconds(int ms) {
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

inline void SetTimer(int fd, int firstMs, int intervalMs) {
    itimerspec when{};
    when.it_value.tv_sec = firstMs / 1000;
    when.it_value.tv_nsec = static_cast<long>(firstMs % 1000) * 1000000L;
    when.it_interval.tv_sec = intervalMs / 1000;
    when.it_interval.tv_nsec = static_cast<long>(intervalMs % 1000) * 1000000L;
    timerfd_settime(fd, 0, &when, nullptr);
}

}  // namespace binder_pool

struct BinderProcess::Service {
    struct Share {
        size_t connections = 0;
        size_t buffered = 0;
    };
    uint64_t id = 0;
    std::string name;
    base::unique_fd fd;
    sp<IBinder> binder;
    size_t connections = 0;
    size_t buffered = 0;
    std::unordered_map<uid_t, Share> shares;
    bool paused = false;
    bool removed = false;
};

struct BinderProcess::Connection {
    enum class State { kArmed, kActive, kDeferred, kClosed };
    uint64_t id = 0;
    base::unique_fd fd;
    std::shared_ptr<Service> service;
    uid_t uid = 0;
    pid_t pid = 0;
    WireDecoder decoder{{WireIo::kRequestMagic}};
    size_t accounted = 0;  // bytes of the decoder counted against the budgets
    // Written under lock_, except the move to kDeferred under workLock_;
    // only kArmed connections are touched by threads that do not own them.
    std::atomic<State> state{State::kArmed};
    binder_pool::Clock::time_point lastActive;
    std::unique_ptr<WireMessage> pending;  // a transaction waiting for its uid's turn
};

struct BinderProcess::UidWork {
    size_t busy = 0;  // threads serving this uid now
    std::deque<std::shared_ptr<Connection>> deferred;
};

// Binder's own lines about clients (closed, refused, evicted) at a bounded rate.
class BinderProcess::RateLimitedLog {
public:
    explicit RateLimitedLog(int burst) : limiter_(burst, binder_pool::kLogIntervalMs) {}
    void log(base::LogSeverity severity, const std::string& line) {
        uint64_t suppressed = 0;
        if (!limiter_.Allow(&suppressed)) return;
        base::LogMessage(__FILE__, __LINE__, severity, nullptr, -1).stream() << line << platform::LogRateLimiter::Summary(suppressed);
    }

private:
    platform::LogRateLimiter limiter_;
};

}  // namespace android
