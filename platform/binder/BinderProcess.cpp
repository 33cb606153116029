#include "platform/binder/BinderProcess.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "platform/Log.h"
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireIo.h"

namespace android {

struct BinderProcess::Endpoint {
    uint64_t id = 0;
    bool listening = false;
    base::unique_fd fd;
    std::string name;
    sp<IBinder> binder;
    uid_t uid = 0;
    pid_t pid = 0;
    std::string buffer;                 // bytes of the transaction being received
    std::vector<base::unique_fd> fds;   // descriptors received with them
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

BinderProcess::BinderProcess() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    CHECK(epoll_.ok()) << "binder: cannot create the epoll set: " << strerror(errno);
}

void BinderProcess::addListener(const std::string& key, const std::string& name, base::unique_fd listener,
                                sp<IBinder> binder) {
    removeListener(key);
    auto ep = std::make_shared<Endpoint>();
    ep->listening = true;
    ep->fd = std::move(listener);
    ep->name = name;
    ep->binder = std::move(binder);
    std::lock_guard<std::mutex> lock(lock_);
    ep->id = nextId_++;
    endpoints_[ep->id] = ep;
    listenerIds_[key] = ep->id;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT;
    ev.data.u64 = ep->id;
    CHECK_EQ(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, ep->fd.get(), &ev), 0);
}

void BinderProcess::removeListener(const std::string& key) {
    std::lock_guard<std::mutex> lock(lock_);
    auto it = listenerIds_.find(key);
    if (it == listenerIds_.end()) return;
    auto ep = endpoints_.find(it->second);
    if (ep != endpoints_.end()) {
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, ep->second->fd.get(), nullptr);
        endpoints_.erase(ep);  // a thread handling it still holds its own reference
    }
    listenerIds_.erase(it);
}

bool BinderProcess::setMaxThreads(uint32_t count) {
    std::lock_guard<std::mutex> lock(lock_);
    if (started_ || count == 0) return false;
    maxThreads_ = count;
    return true;
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
    for (;;) {
        epoll_event ev;
        int n = epoll_wait(epoll_.get(), &ev, 1, -1);
        if (n <= 0) {
            if (n < 0 && errno != EINTR) PLOG(ERROR) << "binder: epoll_wait";
            continue;
        }
        std::shared_ptr<Endpoint> ep;
        {
            std::lock_guard<std::mutex> lock(lock_);
            auto it = endpoints_.find(ev.data.u64);
            if (it == endpoints_.end()) continue;
            ep = it->second;
        }
        handle(ep);
    }
}

void BinderProcess::rearm(const Endpoint& ep) {
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLONESHOT | (ep.listening ? 0u : static_cast<uint32_t>(EPOLLRDHUP));
    ev.data.u64 = ep.id;
    // Under the lock so that the next thread to take this endpoint (it looks
    // it up under the same lock) sees everything this one did to it.
    std::lock_guard<std::mutex> lock(lock_);
    // Fails only when the endpoint was removed meanwhile, which is fine.
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, ep.fd.get(), &ev);
}

void BinderProcess::handle(const std::shared_ptr<Endpoint>& ep) {
    if (ep->listening) {
        acceptAll(ep);
        rearm(*ep);
        return;
    }
    if (readAndServe(*ep)) rearm(*ep);
}

void BinderProcess::acceptAll(const std::shared_ptr<Endpoint>& listener) {
    for (;;) {
        base::unique_fd conn(accept4(listener->fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!conn.ok()) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) PLOG(ERROR) << "binder: accept on " << listener->name;
            return;
        }
        ucred cred{};
        socklen_t len = sizeof(cred);
        if (getsockopt(conn.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0) {
            PLOG(ERROR) << "binder: no credentials for a client of " << listener->name;
            continue;
        }
        auto ep = std::make_shared<Endpoint>();
        ep->fd = std::move(conn);
        ep->name = listener->name;
        ep->binder = listener->binder;
        ep->uid = cred.uid;
        ep->pid = cred.pid;
        std::lock_guard<std::mutex> lock(lock_);
        if (connections_ >= kMaxConnections) {
            LOG(ERROR) << "binder: refusing a connection from pid " << cred.pid << " to " << ep->name
                       << ": " << kMaxConnections << " connections are open";
            continue;
        }
        ep->id = nextId_++;
        endpoints_[ep->id] = ep;
        ++connections_;
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
        ev.data.u64 = ep->id;
        CHECK_EQ(epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, ep->fd.get(), &ev), 0);
    }
}

void BinderProcess::closeConnection(const Endpoint& conn, const std::string& why) {
    if (!why.empty()) {
        LOG(ERROR) << "binder: closing connection from pid " << conn.pid << " uid " << conn.uid << " to "
                   << conn.name << ": " << why;
    }
    buffered_ -= conn.buffer.size();
    std::lock_guard<std::mutex> lock(lock_);
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, conn.fd.get(), nullptr);
    if (endpoints_.erase(conn.id) > 0) --connections_;
}

bool BinderProcess::readAndServe(Endpoint& conn) {
    for (;;) {
        ssize_t n = WireIo::ReceiveSome(conn.fd.get(), &conn.buffer, &conn.fds);
        if (n > 0 && buffered_.fetch_add(n) + n > kMaxBufferedBytes) {
            closeConnection(conn, "unfinished transactions exceed " + std::to_string(kMaxBufferedBytes) +
                                      " bytes in all");
            return false;
        }
        if (n == 0) {
            // The client went away; an unfinished transaction is worth a line.
            closeConnection(conn, conn.buffer.empty() ? "" : "connection closed mid-transaction");
            return false;
        }
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            closeConnection(conn, std::string("receive failed: ") + strerror(errno));
            return false;
        }
        if (conn.fds.size() > WireIo::kMaxFds) {
            closeConnection(conn, "more descriptors than any transaction carries");
            return false;
        }
        if (!serveBuffered(conn)) return false;
        // Nothing half-received: let epoll say when more comes, rather than
        // paying a read that would only find the socket empty.
        if (conn.buffer.empty()) return true;
    }
}

bool BinderProcess::serveBuffered(Endpoint& conn) {
    while (conn.buffer.size() >= sizeof(WireHeader)) {
        WireHeader header;
        memcpy(&header, conn.buffer.data(), sizeof(header));
        if (header.magic != WireIo::kRequestMagic) {
            closeConnection(conn, "malformed transaction (bad header)");
            return false;
        }
        if (header.dataSize > WireIo::kMaxDataSize) {
            closeConnection(conn, "transaction of " + std::to_string(header.dataSize) +
                                      " bytes exceeds the limit of " +
                                      std::to_string(WireIo::kMaxDataSize) + " bytes");
            return false;
        }
        if (header.fdCount > WireIo::kMaxFds) {
            closeConnection(conn, "transaction with " + std::to_string(header.fdCount) +
                                      " descriptors exceeds the limit");
            return false;
        }
        size_t total = sizeof(header) + header.dataSize;
        if (conn.buffer.size() < total) break;
        if (conn.fds.size() < header.fdCount) {
            closeConnection(conn, "malformed transaction (descriptors missing)");
            return false;
        }
        std::vector<base::unique_fd> fds;
        for (uint32_t i = 0; i < header.fdCount; ++i) fds.push_back(std::move(conn.fds[i]));
        conn.fds.erase(conn.fds.begin(), conn.fds.begin() + header.fdCount);
        Parcel data, reply;
        data.setData(conn.buffer.substr(sizeof(header), header.dataSize), std::move(fds));
        conn.buffer.erase(0, total);
        buffered_ -= total;
        status_t st;
        {
            IPCThreadState::ScopedIdentity identity(conn.uid, conn.pid);
            st = conn.binder->transact(header.codeOrStatus, data, &reply);
        }
        if (st != OK) reply.clear();
        if (WireIo::Send(conn.fd.get(), WireIo::kReplyMagic, static_cast<uint32_t>(st), reply,
                         kReplyTimeoutMs) != OK) {
            closeConnection(conn, "cannot send the reply");
            return false;
        }
    }
    return true;
}

}  // namespace android
