#include "platform/binder/BpBinder.h"

#include <poll.h>

#include <atomic>
#include <cstring>
#include <utility>

#include <android-base/logging.h>

#include "platform/binder/Parcel.h"
#include "platform/binder/WireIo.h"

namespace android {
namespace {

constexpr size_t kMaxIdleConnections = 16;
std::atomic<int> gCallTimeoutMs{-1};
thread_local std::string tLastError;

// A pooled connection is fit for a call when the server has neither closed it
// nor sent anything on it (a refusal, say) since its last reply.
bool StillQuiet(int fd) {
    pollfd pfd{fd, POLLIN | POLLRDHUP, 0};
    return poll(&pfd, 1, 0) == 0;
}

std::string Seconds(int ms) {
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms";
}

}  // namespace

void BpBinder::SetCallTimeoutMs(int timeoutMs) { gCallTimeoutMs = timeoutMs < 0 ? -1 : timeoutMs; }

int BpBinder::CallTimeoutMs() { return gCallTimeoutMs.load(); }

const std::string& BpBinder::LastError() { return tLastError; }

sp<BpBinder> BpBinder::Connect(const std::string& name, const std::string& socketPath) {
    base::unique_fd conn = WireIo::Connect(socketPath, CallTimeoutMs());
    if (!conn.ok()) {
        tLastError = "cannot reach service " + name + ": " + strerror(errno);
        return nullptr;
    }
    tLastError.clear();
    return new BpBinder(name, socketPath, std::move(conn));
}

BpBinder::BpBinder(std::string name, std::string socketPath, base::unique_fd first)
    : name_(std::move(name)), path_(std::move(socketPath)) {
    idle_.push_back({std::move(first), std::chrono::steady_clock::now()});
}

base::unique_fd BpBinder::takeConnection(bool* reused) {
    {
        std::lock_guard<std::mutex> lock(lock_);
        const auto now = std::chrono::steady_clock::now();
        while (!idle_.empty()) {
            Idle idle = std::move(idle_.back());
            idle_.pop_back();
            // A connection that was busy a moment ago needs no look: a server
            // closes only connections idle far longer, and a send on one it
            // closed fails at once and is retried on a fresh one.
            const auto idleFor = now - idle.since;
            if (idleFor < std::chrono::milliseconds(kMaxIdleReuseMs) &&
                (idleFor < std::chrono::seconds(1) || StillQuiet(idle.fd.get()))) {
                *reused = true;
                return std::move(idle.fd);
            }
        }
    }
    *reused = false;
    return WireIo::Connect(path_, CallTimeoutMs());
}

void BpBinder::giveBack(base::unique_fd conn) {
    std::lock_guard<std::mutex> lock(lock_);
    if (idle_.size() < kMaxIdleConnections) idle_.push_back({std::move(conn), std::chrono::steady_clock::now()});
}

status_t BpBinder::fail(status_t status, const std::string& sentence) {
    tLastError = sentence;
    LOG(ERROR) << "binder: " << sentence;
    return status;
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
    tLastError.clear();
    const int timeoutMs = CallTimeoutMs();
    const std::string service = "service " + name_;
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool reused = false;
        base::unique_fd conn = takeConnection(&reused);
        if (!conn.ok()) {
            if (errno == ETIMEDOUT) {
                return fail(TIMED_OUT, service + " did not accept a connection within " + Seconds(timeoutMs));
            }
            return fail(DEAD_OBJECT, "cannot reach " + service + ": " + strerror(errno));
        }
        status_t st = WireIo::Send(conn.get(), WireIo::kRequestMagic, code, data, timeoutMs);
        uint32_t transportStatus = 0;
        Parcel received;
        std::string refusal;
        if (st == BAD_VALUE) return fail(BAD_VALUE, "the request is larger than a transaction may be");
        if (st == TIMED_OUT) {
            return fail(TIMED_OUT, service + " did not take the request within " + Seconds(timeoutMs));
        }
        if (st != OK) {
            // A server that turned the connection away said why before closing it.
            status_t refused = WireIo::Receive(conn.get(), &transportStatus, &received, 0, &refusal);
            if (!refusal.empty()) return fail(refused, refusal);
            // A pooled connection whose server went away (a restarted
            // service): nothing was delivered, so a fresh connection may retry.
            if (reused) continue;
            return fail(DEAD_OBJECT, "the " + service + " closed the connection before the request was sent");
        }
        st = WireIo::Receive(conn.get(), &transportStatus, &received, timeoutMs, &refusal);
        if (!refusal.empty()) return fail(st, refusal);
        if (st == TIMED_OUT) {
            return fail(TIMED_OUT, "no reply from " + service + " within " + Seconds(timeoutMs));
        }
        if (st == BAD_VALUE) return fail(DEAD_OBJECT, "the " + service + " sent a malformed reply");
        if (st != OK) {
            return fail(DEAD_OBJECT, "the " + service + " closed the connection before replying");
        }
        if (reply != nullptr) *reply = std::move(received);
        giveBack(std::move(conn));
        return static_cast<status_t>(transportStatus);
    }
    return fail(DEAD_OBJECT, "the " + service + " closed the connection before the request was sent");
}

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (descriptor_.size() > 0) return descriptor_;
    }
    // Asked without the lock: other callers need not wait for the round trip.
    Parcel in, reply;
    String16 descriptor;
    if (const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, in, &reply) != OK ||
        reply.readString16(&descriptor) != OK) {
        descriptor = String16();
    }
    std::lock_guard<std::mutex> lock(lock_);
    if (descriptor_.size() == 0) descriptor_ = descriptor;
    return descriptor_;
}

}  // namespace android
