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
namespace {

constexpr uint64_t kSweepId = 1;
constexpr uint64_t kResumeId = 2;
constexpr uint64_t kReadyId = 3;
// A listener that ran out of descriptors rests this long before trying again.
constexpr int kAcceptPauseMs = 100;
constexpr int64_t kLogIntervalMs = 10000;

using Clock = std::chrono::steady_clock;

std::string Seconds(int ms) {
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

void SetTimer(int fd, int firstMs, int intervalMs) {
    itimerspec when{};
    when.it_value.tv_sec = firstMs / 1000;
    when.it_value.tv_nsec = static_cast<long>(firstMs % 1000) * 1000000L;
    when.it_interval.tv_sec = intervalMs / 1000;
    when.it_interval.tv_nsec = static_cast<long>(intervalMs % 1000) * 1000000L;
    timerfd_settime(fd, 0, &when, nullptr);
}

}  // namespace

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
    Clock::time_point lastActive;
    std::unique_ptr<WireMessage> pending;  // a transaction waiting for its uid's turn
};

struct BinderProcess::UidWork {
    size_t busy = 0;  // threads serving this uid now
    std::deque<std::shared_ptr<Connection>> deferred;
};

// Binder's own lines about clients (closed, refused, evicted) at a bounded rate.
class BinderProcess::RateLimitedLog {
public:
    explicit RateLimitedLog(int burst) : limiter_(burst, kLogIntervalMs) {}
    void log(base::LogSeverity severity, const std::string& line) {
        uint64_t suppressed = 0;
        if (!limiter_.Allow(&suppressed)) return;
        base::LogMessage(__FILE__, __LINE__, severity, nullptr, -1).stream() << line << platform::LogRateLimiter::Summary(suppressed);
    }

private:
    platform::LogRateLimiter limiter_;
};

BinderProcess& BinderProcess::self() {
    // Never destroyed: pool threads run until the process ends. A forked
    // child must not share the parent's epoll set, so it makes its own.
    static std::mutex creation;
    static BinderProcess* instance = nullptr;
    static pid_t owner = 0;
    std::lock_guard<std::mutex> lock(creation);
    if (instance == nullptr || owner != getpid()) {
        instance = new BinderProcess();
        owner = getpid();
    }
    return *instance;
}

BinderProcess::BinderProcess()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      sweepTimer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      resumeTimer_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      readyEvent_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)),
      reserve_(open("/dev/null", O_RDONLY | O_CLOEXEC)),
      closeLog_(std::make_unique<RateLimitedLog>(20)),
      refuseLog_(std::make_unique<RateLimitedLog>(5)),
      evictLog_(std::make_unique<RateLimitedLog>(5)),
      ownEvictLog_(std::make_unique<RateLimitedLog>(5)),
      descriptorLog_(std::make_unique<RateLimitedLog>(1)) {
    CHECK(epoll_.ok() && sweepTimer_.ok() && resumeTimer_.ok() && readyEvent_.ok())
        << "binder: cannot create the pool's epoll set and timers: " << strerror(errno);
    const std::pair<int, uint64_t> internal[] = {
        {sweepTimer_.get(), kSweepId}, {resumeTimer_.get(), kResumeId}, {readyEvent_.get(), kReadyId}};
    for (const auto& [fd, id] : internal) {
        epoll_event ev{};
        // The ready event stays level-triggered: each deferred connection
        // counts one, and as many threads as there are take one each.
        ev.events = id == kReadyId ? EPOLLIN : EPOLLIN | EPOLLONESHOT;
        ev.data.u64 = id;
        CHECK_EQ(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev), 0);
    }
}

void BinderProcess::addListener(const std::string& key, const std::string& name, base::unique_fd listener,
                                sp<IBinder> binder) {
    removeListener(key);
    auto service = std::make_shared<Service>();
    service->fd = std::move(listener);
    service->name = name;
    service->binder = std::move(binder);
    std::lock_guard<std::mutex> lock(lock_);
    service->id = nextId_++;
    services_[service->id] = service;
    serviceIds_[key] = service->id;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.u64 = service->id;
    CHECK_EQ(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, service->fd.get(), &ev), 0);
}

void BinderProcess::removeListener(const std::string& key) {
    std::lock_guard<std::mutex> lock(lock_);
    auto it = serviceIds_.find(key);
    if (it == serviceIds_.end()) return;
    auto service = services_.find(it->second);
    if (service != services_.end()) {
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, service->second->fd.get(), nullptr);
        service->second->removed = true;
        services_.erase(service);  // a thread accepting on it still holds its own reference
    }
    serviceIds_.erase(it);
}

bool BinderProcess::setMaxThreads(uint32_t count) {
    std::lock_guard<std::mutex> lock(lock_);
    if (started_ || count == 0) return false;
    maxThreads_ = count;
    return true;
}

void BinderProcess::setTimeouts(const Timeouts& timeouts) {
    std::lock_guard<std::mutex> lock(lock_);
    timeouts_ = timeouts;
    if (sweepArmed_) {
        sweepArmed_ = false;
        armSweepLocked();
    }
}

BinderProcess::Timeouts BinderProcess::timeouts() const {
    std::lock_guard<std::mutex> lock(lock_);
    return timeouts_;
}

BinderProcess::Usage BinderProcess::usage(const std::string& key) {
    std::lock_guard<std::mutex> lock(lock_);
    Usage usage;
    auto id = serviceIds_.find(key);
    if (id == serviceIds_.end()) return usage;
    auto service = services_.find(id->second);
    if (service == services_.end()) return usage;
    usage.connections = service->second->connections;
    usage.bufferedBytes = service->second->buffered;
    return usage;
}

void BinderProcess::startThreadPool() {
    std::lock_guard<std::mutex> lock(lock_);
    if (started_) return;
    started_ = true;
    for (uint32_t i = 0; i < maxThreads_; ++i) {
        threads_.emplace_back([this] { serveLoop(); });
    }
}

void BinderProcess::joinThreadPool() { serveLoop(); }

void BinderProcess::serveLoop() {
    ++serving_;
    for (;;) {
        epoll_event ev;
        int n = epoll_wait(epoll_.get(), &ev, 1, -1);
        if (n <= 0) {
            if (n < 0 && errno != EINTR) PLOG(ERROR) << "binder: epoll_wait";
            continue;
        }
        const uint64_t id = ev.data.u64;
        if (id == kSweepId || id == kResumeId) {
            onTimer(id == kSweepId ? sweepTimer_.get() : resumeTimer_.get(), id);
            continue;
        }
        if (id == kReadyId) {
            uint64_t one;
            if (read(readyEvent_.get(), &one, sizeof(one)) != sizeof(one)) continue;  // another thread took it
            std::shared_ptr<Connection> conn;
            {
                std::lock_guard<std::mutex> lock(workLock_);
                if (ready_.empty()) continue;
                conn = std::move(ready_.front());
                ready_.pop_front();
                conn->state = Connection::State::kActive;
            }
            handleConnection(conn, true);
            continue;
        }
        std::shared_ptr<Service> service;
        std::shared_ptr<Connection> conn;
        {
            std::lock_guard<std::mutex> lock(lock_);
            auto s = services_.find(id);
            if (s != services_.end()) {
                service = s->second;
            } else {
                auto c = connections_.find(id);
                // Gone (closed as idle meanwhile) or already taken: nothing to do.
                if (c == connections_.end() || c->second->state != Connection::State::kArmed) continue;
                conn = c->second;
                conn->state = Connection::State::kActive;
            }
        }
        if (service) {
            if (acceptAll(service)) rearmListener(*service);
        } else {
            handleConnection(conn, false);
        }
    }
}

void BinderProcess::onTimer(int fd, uint64_t id) {
    uint64_t expirations;
    if (read(fd, &expirations, sizeof(expirations)) == sizeof(expirations)) {
        if (id == kSweepId) {
            sweepIdle();
        } else {
            std::vector<std::shared_ptr<Service>> paused;
            {
                std::lock_guard<std::mutex> lock(lock_);
                resumeArmed_ = false;
                for (auto& [sid, service] : services_) {
                    if (service->paused) {
                        service->paused = false;
                        paused.push_back(service);
                    }
                }
            }
            for (const auto& service : paused) rearmListener(*service);
        }
    }
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.u64 = id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &ev);
}

size_t BinderProcess::serviceCapLocked() const {
    rlimit limit{};
    size_t room = kMaxConnections * std::max<size_t>(services_.size(), 1);
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        room = limit.rlim_cur > kReservedFds ? limit.rlim_cur - kReservedFds : 1;
    }
    return std::max<size_t>(1, std::min(kMaxConnections, room / std::max<size_t>(services_.size(), 1)));
}

size_t BinderProcess::uidWorkCapLocked() const { return std::max<uint32_t>(1, serving_.load() / 2); }

void BinderProcess::armSweepLocked() {
    if (sweepArmed_) return;
    int period = std::clamp(std::min(timeouts_.idleMs, timeouts_.stalledMs) / 4, 10, 5000);
    SetTimer(sweepTimer_.get(), period, period);
    sweepArmed_ = true;
}

bool BinderProcess::acceptAll(const std::shared_ptr<Service>& service) {
    for (;;) {
        base::unique_fd fd(accept4(service->fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd.ok()) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Retrying now would fail the same way, for ever: turn one
                // client away so the backlog moves, and rest a moment.
                const int saved = errno;
                shedOne(service);
                descriptorLog_->log(base::ERROR, "binder: cannot accept on " + service->name + ": " +
                                                     strerror(saved) + "; pausing for " +
                                                     std::to_string(kAcceptPauseMs) + " ms");
                std::lock_guard<std::mutex> lock(lock_);
                service->paused = true;
                if (!resumeArmed_) {
                    SetTimer(resumeTimer_.get(), kAcceptPauseMs, 0);
                    resumeArmed_ = true;
                }
                return false;
            }
            descriptorLog_->log(base::ERROR, "binder: accept on " + service->name + ": " + strerror(errno));
            return true;
        }
        ucred cred{};
        socklen_t len = sizeof(cred);
        if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0) {
            refuseLog_->log(base::ERROR, "binder: no credentials for a client of " + service->name + ": " +
                                             strerror(errno));
            continue;
        }
        std::string refusal;
        std::string eviction;
        bool evictedOwn = false;
        {
            std::lock_guard<std::mutex> lock(lock_);
            const size_t cap = serviceCapLocked();
            const size_t uidCap = std::max<size_t>(1, cap / kUidShareDivisor);
            auto share = service->shares.find(cred.uid);
            const size_t held = share == service->shares.end() ? 0 : share->second.connections;
            if (held >= uidCap) {
                // Most callers of a phone share the system uid: one of them
                // that leaks connections must not lock the others out, so
                // the uid's longest-unused idle connection makes room.
                if (!evictIdleLocked(*service, cred.uid, cred.uid, &eviction, &evictedOwn)) {
                    refusal = "too many connections from uid " + std::to_string(cred.uid) + " (limit " +
                              std::to_string(uidCap) + " for service " + service->name + "), none of them idle";
                }
            } else if (service->connections >= cap &&
                       !evictForLocked(*service, cred.uid, held, &eviction, &evictedOwn)) {
                refusal = "the service " + service->name + " has too many connections (limit " +
                          std::to_string(cap) + "); try again later";
            }
            if (refusal.empty()) {
                auto conn = std::make_shared<Connection>();
                conn->id = nextId_++;
                conn->fd = std::move(fd);
                conn->service = service;
                conn->uid = cred.uid;
                conn->pid = cred.pid;
                conn->lastActive = Clock::now();
                ++service->connections;
                ++service->shares[cred.uid].connections;
                epoll_event ev{};
                ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
                ev.data.u64 = conn->id;
                CHECK_EQ(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, conn->fd.get(), &ev), 0);
                connections_[conn->id] = std::move(conn);
                armSweepLocked();
            }
        }
        if (!eviction.empty()) {
            // A leaky uid churning through its own connections has a budget
            // of lines apart, so that it never hides that another uid lost one.
            (evictedOwn ? ownEvictLog_ : evictLog_)->log(base::INFO, eviction);
        }
        if (!refusal.empty()) {
            WireIo::Refuse(fd.get(), FAILED_TRANSACTION, refusal);
            refuseLog_->log(base::WARNING, "binder: refused a connection from pid " + std::to_string(cred.pid) +
                                               ": " + refusal);
        }
    }
}

bool BinderProcess::evictForLocked(Service& service, uid_t newcomer, size_t held, std::string* line, bool* own) {
    // The uid that holds the most connections gives one up, if it holds more
    // than the newcomer would: many uids together can fill a service, but
    // never so that a uid with few connections is kept out. When nobody
    // holds more, the newcomer's own uid gives one up if it can.
    uid_t largest = newcomer;
    size_t most = held + 1;
    for (const auto& [uid, share] : service.shares) {
        if (share.connections > most) {
            most = share.connections;
            largest = uid;
        }
    }
    if (largest == newcomer && held == 0) return false;
    return evictIdleLocked(service, largest, newcomer, line, own);
}

bool BinderProcess::evictIdleLocked(Service& service, uid_t owner, uid_t newcomer, std::string* line,
                                    bool* own) {
    // Idle: armed (no thread has it, nothing is queued for it), nothing
    // half-received, and no request waiting in the socket. A request may
    // still be on its way this instant; its client sees the connection
    // closed before the reply, as after an idle sweep, and a proxy retries.
    std::shared_ptr<Connection> oldest;
    for (const auto& [id, conn] : connections_) {
        if (conn->service.get() != &service || conn->uid != owner || conn->state != Connection::State::kArmed ||
            !conn->decoder.empty()) {
            continue;
        }
        if (oldest && conn->lastActive >= oldest->lastActive) continue;
        pollfd pfd{conn->fd.get(), POLLIN, 0};
        if (poll(&pfd, 1, 0) > 0 && !(pfd.revents & (POLLHUP | POLLERR))) continue;
        oldest = conn;
    }
    if (!oldest) return false;
    const auto idleMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - oldest->lastActive).count();
    *line = "binder: evicted the oldest idle connection of uid " + std::to_string(owner) + " (pid " +
            std::to_string(oldest->pid) + ", idle for " + std::to_string(idleMs) + " ms) from " + service.name +
            " to admit a newcomer of uid " + std::to_string(newcomer);
    *own = owner == newcomer;
    eraseLocked(*oldest);
    return true;
}

void BinderProcess::shedOne(const std::shared_ptr<Service>& service) {
    std::lock_guard<std::mutex> lock(reserveLock_);
    if (!reserve_.ok()) return;
    reserve_.reset();
    base::unique_fd fd(accept4(service->fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (fd.ok()) WireIo::Refuse(fd.get(), FAILED_TRANSACTION, "the daemon is out of file descriptors; try again later");
    fd.reset();
    reserve_.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void BinderProcess::rearmListener(const Service& service) {
    std::lock_guard<std::mutex> lock(lock_);
    if (service.removed || service.paused) return;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.u64 = service.id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, service.fd.get(), &ev);
}

void BinderProcess::rearm(Connection& conn) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    ev.data.u64 = conn.id;
    // Under the lock so that the next thread to take this connection (it
    // looks it up under the same lock) sees everything this one did to it.
    std::lock_guard<std::mutex> lock(lock_);
    if (conn.state == Connection::State::kClosed) return;
    conn.state = Connection::State::kArmed;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, conn.fd.get(), &ev);
}

void BinderProcess::handleConnection(const std::shared_ptr<Connection>& conn, bool resumed) {
    Outcome outcome = readAndServe(conn, resumed);
    if (outcome == Outcome::kRearm) rearm(*conn);
}

void BinderProcess::eraseLocked(Connection& conn) {
    if (conn.state == Connection::State::kClosed) return;
    conn.state = Connection::State::kClosed;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, conn.fd.get(), nullptr);
    connections_.erase(conn.id);
    Service& service = *conn.service;
    --service.connections;
    service.buffered -= conn.accounted;
    auto share = service.shares.find(conn.uid);
    if (share != service.shares.end()) {
        --share->second.connections;
        share->second.buffered -= conn.accounted;
        if (share->second.connections == 0) service.shares.erase(share);
    }
    conn.accounted = 0;
    conn.fd.reset();
}

void BinderProcess::logClose(const Connection& conn, const std::string& why) {
    closeLog_->log(base::ERROR, "binder: closing connection from pid " + std::to_string(conn.pid) + " uid " +
                                    std::to_string(conn.uid) + " to " + conn.service->name + ": " + why);
}

void BinderProcess::closeConnection(Connection& conn, const std::string& why) {
    if (!why.empty()) logClose(conn, why);
    std::lock_guard<std::mutex> lock(lock_);
    eraseLocked(conn);
}

bool BinderProcess::account(Connection& conn) {
    const size_t now = conn.decoder.bufferedBytes();
    std::string why;
    {
        std::lock_guard<std::mutex> lock(lock_);
        Service& service = *conn.service;
        Service::Share& share = service.shares[conn.uid];
        service.buffered = service.buffered - conn.accounted + now;
        share.buffered = share.buffered - conn.accounted + now;
        conn.accounted = now;
        const size_t uidBudget = kMaxBufferedBytes / kUidShareDivisor;
        if (share.buffered > uidBudget) {
            why = "unfinished transactions of uid " + std::to_string(conn.uid) + " exceed " +
                  std::to_string(uidBudget) + " bytes";
        } else if (service.buffered > kMaxBufferedBytes) {
            why = "unfinished transactions exceed " + std::to_string(kMaxBufferedBytes) + " bytes in all";
        }
        // Closed in the same breath, so that nobody ever sees a budget exceeded.
        if (!why.empty()) eraseLocked(conn);
    }
    if (why.empty()) return true;
    logClose(conn, why);
    return false;
}

BinderProcess::Work BinderProcess::acquireWork(const std::shared_ptr<Connection>& conn, WireMessage& message) {
    std::lock_guard<std::mutex> lock(workLock_);
    UidWork& work = work_[conn->uid];
    if (work.busy < uidWorkCapLocked()) {
        ++work.busy;
        return Work::kGranted;
    }
    // Settled before the connection is queued: from then on the thread that
    // releaseWork wakes may own it at any moment. The buffer only shrank, so
    // this stays within every budget.
    if (!account(*conn)) return Work::kClosed;
    conn->pending = std::make_unique<WireMessage>(std::move(message));
    conn->state = Connection::State::kDeferred;
    work.deferred.push_back(conn);
    return Work::kDeferred;
}

void BinderProcess::releaseWork(uid_t uid) {
    std::lock_guard<std::mutex> lock(workLock_);
    auto it = work_.find(uid);
    if (it == work_.end()) return;
    UidWork& work = it->second;
    if (!work.deferred.empty()) {
        // The thread slot passes to the oldest waiting transaction of the uid.
        ready_.push_back(std::move(work.deferred.front()));
        work.deferred.pop_front();
        uint64_t one = 1;
        if (write(readyEvent_.get(), &one, sizeof(one)) != sizeof(one)) {
            PLOG(ERROR) << "binder: cannot wake a thread for a waiting transaction";
        }
        return;
    }
    if (--work.busy == 0) work_.erase(it);
}

BinderProcess::Outcome BinderProcess::readAndServe(const std::shared_ptr<Connection>& shared, bool resumed) {
    Connection& conn = *shared;
    if (resumed) {
        std::unique_ptr<WireMessage> pending = std::move(conn.pending);
        bool ok = serveOne(conn, *pending);
        releaseWork(conn.uid);
        if (!ok) return Outcome::kClosed;
    }
    bool mustRead = !resumed;
    WireMessage message;
    std::string error;
    for (;;) {
        if (mustRead) {
            ssize_t n = WireIo::ReceiveSome(conn.fd.get(), conn.decoder.buffer(), conn.decoder.fds());
            if (n == 0) {
                // The client went away; an unfinished transaction is worth a line.
                closeConnection(conn, conn.decoder.empty() ? "" : "connection closed mid-transaction");
                return Outcome::kClosed;
            }
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK) return Outcome::kRearm;
                closeConnection(conn, std::string("receive failed: ") + strerror(errno));
                return Outcome::kClosed;
            }
            conn.lastActive = Clock::now();
        }
        mustRead = true;
        for (;;) {
            WireDecoder::Result result = conn.decoder.next(&message, &error);
            if (result == WireDecoder::Result::kError) {
                closeConnection(conn, error);
                return Outcome::kClosed;
            }
            if (result == WireDecoder::Result::kNeedMore) break;
            Work work = acquireWork(shared, message);
            if (work == Work::kClosed) return Outcome::kClosed;
            if (work == Work::kDeferred) return Outcome::kDeferred;
            bool ok = serveOne(conn, message);
            releaseWork(conn.uid);
            if (!ok) return Outcome::kClosed;
        }
        // Only bytes held between reads count against the budgets, so a
        // transaction that arrives whole costs no accounting at all.
        if (conn.decoder.bufferedBytes() != conn.accounted && !account(conn)) return Outcome::kClosed;
        // Nothing half-received: let epoll say when more comes, rather than
        // paying a read that would only find the socket empty.
        if (conn.decoder.bufferedBytes() == 0) return Outcome::kRearm;
    }
}

bool BinderProcess::serveOne(Connection& conn, WireMessage& message) {
    Parcel data, reply;
    data.setData(std::move(message.data), std::move(message.fds));
    status_t st;
    {
        IPCThreadState::ScopedIdentity identity(conn.uid, conn.pid);
        st = conn.service->binder->transact(message.codeOrStatus, data, &reply);
    }
    if (st != OK) reply.clear();
    if (WireIo::Send(conn.fd.get(), WireIo::kReplyMagic, static_cast<uint32_t>(st), reply, kReplyTimeoutMs) != OK) {
        closeConnection(conn, "cannot send the reply");
        return false;
    }
    conn.lastActive = Clock::now();
    return true;
}

void BinderProcess::sweepIdle() {
    std::vector<std::shared_ptr<Connection>> closed;
    size_t idle = 0, stalled = 0;
    Timeouts limits;
    {
        std::lock_guard<std::mutex> lock(lock_);
        limits = timeouts_;
        const auto now = Clock::now();
        for (auto& [id, conn] : connections_) {
            if (conn->state != Connection::State::kArmed) continue;
            const bool partial = !conn->decoder.empty();
            if (now - conn->lastActive < std::chrono::milliseconds(partial ? limits.stalledMs : limits.idleMs)) {
                continue;
            }
            // Bytes waiting mean a thread is about to serve it: not idle.
            pollfd pfd{conn->fd.get(), POLLIN, 0};
            if (poll(&pfd, 1, 0) > 0 && !(pfd.revents & (POLLHUP | POLLERR))) continue;
            closed.push_back(conn);
            ++(partial ? stalled : idle);
        }
        for (auto& conn : closed) eraseLocked(*conn);
        if (connections_.empty()) {
            SetTimer(sweepTimer_.get(), 0, 0);
            sweepArmed_ = false;
        }
    }
    if (idle > 0) {
        LOG(INFO) << "binder: closed " << idle << " connection(s) idle for more than " << Seconds(limits.idleMs);
    }
    if (stalled > 0) {
        LOG(WARNING) << "binder: closed " << stalled << " connection(s) stalled mid-transaction for more than "
                     << Seconds(limits.stalledMs);
    }
}

}  // namespace android
