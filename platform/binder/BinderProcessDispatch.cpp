#include "platform/binder/BinderProcessState.h"

namespace android {

using namespace binder_pool;

size_t BinderProcess::uidWorkCapLocked() const { return std::max<uint32_t>(1, serving_.load() / 2); }

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

}  // namespace android
