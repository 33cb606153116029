#include "platform/binder/BinderProcessState.h"

namespace android {

using namespace binder_pool;

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

void BinderProcess::armSweepLocked() {
    if (sweepArmed_) return;
    int period = std::clamp(std::min(timeouts_.idleMs, timeouts_.stalledMs) / 4, 10, 5000);
    SetTimer(sweepTimer_.get(), period, period);
    sweepArmed_ = true;
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
