#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/UniqueFd.h"
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
// A malformed or oversized transaction closes that connection with a log line.
namespace android {

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

    // Accepted connections at most; further clients are turned away with a log line.
    static constexpr size_t kMaxConnections = 1024;
    // Unfinished transactions of all connections together may hold this
    // much memory; the connection that would pass it is closed.
    static constexpr size_t kMaxBufferedBytes = 64 * 1024 * 1024;
    // How long a reply may wait for a client that does not read.
    static constexpr int kReplyTimeoutMs = 5000;

private:
    struct Endpoint;
    BinderProcess();
    void serveLoop();
    void handle(const std::shared_ptr<Endpoint>& ep);
    void acceptAll(const std::shared_ptr<Endpoint>& listener);
    // False when the connection must close.
    bool readAndServe(Endpoint& conn);
    // Serves the complete transactions in the buffer; false when the connection closed.
    bool serveBuffered(Endpoint& conn);
    void closeConnection(const Endpoint& conn, const std::string& why);
    void rearm(const Endpoint& ep);

    base::unique_fd epoll_;
    std::mutex lock_;
    std::unordered_map<uint64_t, std::shared_ptr<Endpoint>> endpoints_;
    std::unordered_map<std::string, uint64_t> listenerIds_;
    uint64_t nextId_ = 1;
    size_t connections_ = 0;
    std::atomic<size_t> buffered_{0};  // bytes in every connection's buffer
    std::atomic<uint32_t> maxThreads_{15};
    bool started_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace android
