#include "platform/binder/BinderProcessState.h"

namespace android {

using namespace binder_pool;

size_t BinderProcess::serviceCapLocked() const {
    rlimit limit{};
    size_t room = kMaxConnections * std::max<size_t>(services_.size(), 1);
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        room = limit.rlim_cur > kReservedFds ? limit.rlim_cur - kReservedFds : 1;
    }
    return std::max<size_t>(1, std::min(kMaxConnections, room / std::max<size_t>(services_.size(), 1)));
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

}  // namespace android
