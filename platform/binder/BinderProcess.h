#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <android-base/unique_fd.h>

#include "platform/binder/IBinder.h"

// The serving side of this process: the listening sockets of the services it
// added, the connections accepted on them, and the binder thread pool.
//
// Every pool thread waits on one epoll set. Connections are armed one-shot,
// so exactly one thread handles a connection at a time; it reads whatever
// has arrived without blocking and keeps partial transactions in the
// connection's buffer. Only a complete transaction makes a thread run the
// service method, so a client that connects and sends nothing, or half a
// transaction, holds no thread: the others keep serving everybody else.
//
// Every local process may call, so no single caller may use up what the
// others need: each service has a connection cap and a budget for the bytes
// of unfinished transactions, and one uid may take only a share of each; one
// uid may occupy only half the pool's threads (its further transactions wait
// their turn, the other uids' do not); a uid at its share gives up its
// longest-unused idle connection to its own newcomer (refused only when all
// of its connections are busy), and a full service makes the uid holding the
// most give one up; idle and stalled connections are closed; running out of
// descriptors pauses accepting instead of spinning.
// Refused clients are told why before their connection closes, and every
// such event is logged at a bounded rate.
namespace android {

struct WireMessage;

class BinderProcess {
public:
    // The process-wide instance. A child forked from a serving process gets
    // a fresh, empty one on first use (it serves nothing of its parent's).
    static BinderProcess& self();

    // Starts serving `listener` (bound and listening) for `binder`, known as
    // `key` (its socket path) and logged as `name`.
    void addListener(const std::string& key, const std::string& name, base::unique_fd listener,
                     sp<IBinder> binder);
    // Stops serving `key`: the listener closes, accepted connections stay
    // until their clients go.
    void removeListener(const std::string& key);

    // Starts the pool's threads (once; later calls do nothing).
    void startThreadPool();
    // The calling thread serves too, for ever.
    void joinThreadPool();
    // The number of threads startThreadPool starts (default 15, as binder's).
    bool setMaxThreads(uint32_t count);
    uint32_t maxThreads() const { return maxThreads_; }

    // Accepted connections of one service at most (fewer when the descriptor
    // limit leaves less room: it is shared by the services, less a reserve
    // for the daemon's own work).
    static constexpr size_t kMaxConnections = 1024;
    static constexpr size_t kReservedFds = 64;
    // Unfinished transactions of one service's connections may hold this
    // much memory; the connection that would pass it is closed.
    static constexpr size_t kMaxBufferedBytes = 16 * 1024 * 1024;
    // One uid may hold this fraction of a service's connections and budget.
    static constexpr size_t kUidShareDivisor = 4;
    // How long a reply may wait for a client that does not read.
    static constexpr int kReplyTimeoutMs = 5000;
    // A connection with nothing to do for this long is closed (proxies give
    // up their idle connections sooner, so their callers never notice).
    static constexpr int kIdleTimeoutMs = 60000;
    // A connection that stops half-way through a transaction for this long is closed.
    static constexpr int kStalledTimeoutMs = 10000;
    // A dump has this long in all to reach its caller's descriptor (dumpsys's limit).
    static constexpr int kDumpTimeoutMs = 10000;

    struct Timeouts {
        int idleMs = kIdleTimeoutMs;
        int stalledMs = kStalledTimeoutMs;
        int dumpMs = kDumpTimeoutMs;
    };
    // Tests shorten the limits so that they need not wait minutes.
    void setTimeouts(const Timeouts& timeouts);
    Timeouts timeouts() const;
    static int DumpTimeoutMs() { return self().timeouts().dumpMs; }

    // What the service at `key` holds now (zeros when unknown).
    struct Usage {
        size_t connections = 0;
        size_t bufferedBytes = 0;
    };
    Usage usage(const std::string& key);

private:
    struct Service;
    struct Connection;
    struct UidWork;
    class RateLimitedLog;
    enum class Outcome { kRearm, kDeferred, kClosed };

    BinderProcess();
    void serveLoop();
    void onTimer(int fd, uint64_t id);
    void handleConnection(const std::shared_ptr<Connection>& conn, bool resumed);
    // False when the listener is paused (out of descriptors) and must not be re-armed.
    bool acceptAll(const std::shared_ptr<Service>& service);
    void shedOne(const std::shared_ptr<Service>& service);
    // At the service's cap: closes an idle connection of the uid holding the
    // most, when it holds more than `newcomer` (which holds `held`), else one
    // of the newcomer's own; false when nobody can give one up. `line` gets
    // what to log once the lock is released, `own` whether the newcomer's
    // uid gave it up.
    bool evictForLocked(Service& service, uid_t newcomer, size_t held, std::string* line, bool* own);
    // Closes the longest-unused idle connection of `owner` to the service to
    // admit `newcomer`; false when every one of them is busy.
    bool evictIdleLocked(Service& service, uid_t owner, uid_t newcomer, std::string* line, bool* own);
    Outcome readAndServe(const std::shared_ptr<Connection>& conn, bool resumed);
    bool serveOne(Connection& conn, WireMessage& message);
    bool account(Connection& conn);
    enum class Work { kGranted, kDeferred, kClosed };
    // kDeferred when the uid has its share of threads busy: `message` then
    // waits in the connection for a thread that releaseWork hands it, and
    // the caller must not touch the connection again.
    Work acquireWork(const std::shared_ptr<Connection>& conn, WireMessage& message);
    void releaseWork(uid_t uid);
    void closeConnection(Connection& conn, const std::string& why);
    void logClose(const Connection& conn, const std::string& why);
    void eraseLocked(Connection& conn);
    void rearm(Connection& conn);
    void rearmListener(const Service& service);
    void sweepIdle();
    void armSweepLocked();
    size_t serviceCapLocked() const;
    size_t uidWorkCapLocked() const;

    base::unique_fd epoll_;
    base::unique_fd sweepTimer_;   // idle and stalled connections
    base::unique_fd resumeTimer_;  // listeners paused for want of descriptors
    base::unique_fd readyEvent_;   // deferred connections whose uid has a thread free again
    std::mutex reserveLock_;
    base::unique_fd reserve_;      // given up for a moment to turn a client away when out of descriptors

    mutable std::mutex lock_;
    std::unordered_map<uint64_t, std::shared_ptr<Service>> services_;
    std::unordered_map<uint64_t, std::shared_ptr<Connection>> connections_;
    std::unordered_map<std::string, uint64_t> serviceIds_;
    // The threads each uid occupies and its waiting transactions: taken twice
    // per transaction, so apart from lock_. When both are held, workLock_ is
    // taken first.
    std::mutex workLock_;
    std::unordered_map<uid_t, UidWork> work_;
    std::deque<std::shared_ptr<Connection>> ready_;
    uint64_t nextId_ = 16;  // ids below are the timers' and events'
    bool sweepArmed_ = false;
    bool resumeArmed_ = false;
    Timeouts timeouts_;
    std::unique_ptr<RateLimitedLog> closeLog_;
    std::unique_ptr<RateLimitedLog> refuseLog_;
    std::unique_ptr<RateLimitedLog> evictLog_;     // another uid's connection made room
    std::unique_ptr<RateLimitedLog> ownEvictLog_;  // a uid's own connection made room
    std::unique_ptr<RateLimitedLog> descriptorLog_;
    std::atomic<uint32_t> maxThreads_{15};
    std::atomic<uint32_t> serving_{0};  // threads in serveLoop
    bool started_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace android
