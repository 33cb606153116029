#include "platform/binder/WireIo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

#include "platform/binder/Parcel.h"
#include "platform/binder/WireDecoder.h"
#include "platform/Sockets.h"

namespace android {
namespace {

// A time limit over several waits; a negative limit never passes.
class Deadline {
public:
    explicit Deadline(int timeoutMs)
        : unlimited_(timeoutMs < 0),
          end_(std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0))) {}
    // Milliseconds left for poll(): -1 without a limit, 0 once passed.
    int left() const {
        if (unlimited_) return -1;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(end_ - std::chrono::steady_clock::now());
        return ms.count() <= 0 ? 0 : static_cast<int>(std::min<int64_t>(ms.count() + 1, INT32_MAX));
    }

private:
    bool unlimited_;
    std::chrono::steady_clock::time_point end_;
};

// 1 when ready, 0 on time-out, -1 on error.
int WaitFor(int sock, short events, const Deadline& deadline) {
    pollfd pfd{sock, events, 0};
    for (;;) {
        int r = poll(&pfd, 1, deadline.left());
        if (r >= 0) return r > 0 ? 1 : 0;
        if (errno != EINTR) return -1;
    }
}

}  // namespace

status_t WireIo::Send(int sock, uint32_t magic, uint32_t codeOrStatus, const Parcel& parcel,
                      int timeoutMs) {
    std::vector<int> fds = parcel.rawFds();
    if (fds.size() > kMaxFds || parcel.dataSize() > kMaxDataSize) return BAD_VALUE;
    for (int fd : fds) {
        if (fd < 0) return BAD_VALUE;
    }
    WireHeader header{magic, codeOrStatus, static_cast<uint32_t>(parcel.dataSize()),
                      static_cast<uint32_t>(fds.size())};
    const char* data = parcel.data().data();
    size_t total = sizeof(header) + parcel.dataSize();
    size_t sent = 0;
    Deadline deadline(timeoutMs);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    while (sent < total) {
        iovec iov[2];
        int iovcnt = 0;
        if (sent < sizeof(header)) {
            iov[iovcnt++] = {reinterpret_cast<char*>(&header) + sent, sizeof(header) - sent};
            if (parcel.dataSize() > 0) iov[iovcnt++] = {const_cast<char*>(data), parcel.dataSize()};
        } else {
            size_t off = sent - sizeof(header);
            iov[iovcnt++] = {const_cast<char*>(data) + off, parcel.dataSize() - off};
        }
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = iovcnt;
        if (sent == 0 && !fds.empty()) {
            // The descriptors go with the first byte of the message.
            msg.msg_control = control;
            msg.msg_controllen = CMSG_SPACE(sizeof(int) * fds.size());
            cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(int) * fds.size());
            memcpy(CMSG_DATA(cmsg), fds.data(), sizeof(int) * fds.size());
        }
        ssize_t n = sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                int ready = WaitFor(sock, POLLOUT, deadline);
                if (ready > 0) continue;
                if (ready == 0) return TIMED_OUT;
            }
            return DEAD_OBJECT;
        }
        sent += static_cast<size_t>(n);
    }
    return OK;
}

ssize_t WireIo::ReceiveSome(int sock, std::string* buffer, std::vector<base::unique_fd>* fds, bool block) {
    char chunk[64 * 1024];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxFds)];
    iovec iov{chunk, sizeof(chunk)};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof(control);
    ssize_t n;
    do {
        n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC | (block ? 0 : MSG_DONTWAIT));
    } while (n < 0 && errno == EINTR);
    if (n < 0) return n;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
            fds->emplace_back(fd);
        }
    }
    if (msg.msg_flags & MSG_CTRUNC) {
        // More descriptors than any message may carry: the peer is broken.
        errno = EPROTO;
        return -1;
    }
    buffer->append(chunk, static_cast<size_t>(n));
    return n;
}

status_t WireIo::Receive(int sock, uint32_t* codeOrStatus, Parcel* parcel, int timeoutMs,
                         std::string* refusal) {
    WireDecoder decoder({kReplyMagic, kRefuseMagic});
    WireMessage message;
    std::string error;
    Deadline deadline(timeoutMs);
    for (;;) {
        WireDecoder::Result result = decoder.next(&message, &error);
        if (result == WireDecoder::Result::kError) return BAD_VALUE;
        if (result == WireDecoder::Result::kMessage) break;
        // Without a limit, a blocking read costs one system call per reply
        // in the common case; with one, wait for the socket first.
        if (timeoutMs >= 0) {
            int ready = WaitFor(sock, POLLIN, deadline);
            if (ready == 0) return TIMED_OUT;
            if (ready < 0) return DEAD_OBJECT;
        }
        ssize_t n = ReceiveSome(sock, decoder.buffer(), decoder.fds(), timeoutMs < 0);
        if (n == 0) return DEAD_OBJECT;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return DEAD_OBJECT;
    }
    // One reply per call: anything after it is a broken peer.
    if (!decoder.empty()) return BAD_VALUE;
    *codeOrStatus = message.codeOrStatus;
    if (message.magic == kRefuseMagic) {
        if (refusal != nullptr) *refusal = message.data;
        return static_cast<status_t>(message.codeOrStatus) == OK ? FAILED_TRANSACTION
                                                                   : static_cast<status_t>(message.codeOrStatus);
    }
    parcel->setData(std::move(message.data), std::move(message.fds));
    return OK;
}

void WireIo::Refuse(int sock, status_t status, const std::string& sentence) {
    std::string text = sentence.substr(0, 1024);
    WireHeader header{kRefuseMagic, static_cast<uint32_t>(status), static_cast<uint32_t>(text.size()), 0};
    iovec iov[2] = {{&header, sizeof(header)}, {text.data(), text.size()}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    // A fresh socket's buffer always takes these few bytes; a short send
    // just leaves the client a truncated message it will call malformed.
    (void)sendmsg(sock, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
}

base::unique_fd WireIo::Connect(const std::string& path, int timeoutMs) {
    sockaddr_un addr;
    socklen_t len;
    base::unique_fd dirFd;
    if (!platform::MakeUnixAddress(path, &addr, &len, &dirFd)) return base::unique_fd();
    Deadline deadline(timeoutMs);
    for (;;) {
        // Non-blocking, so that a listener with a full backlog cannot hold
        // the caller; the socket is made blocking again once connected.
        base::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!sock.ok()) return sock;
        int r;
        do {
            r = connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), len);
        } while (r < 0 && errno == EINTR);
        if (r == 0) {
            int flags = fcntl(sock.get(), F_GETFL);
            if (flags < 0 || fcntl(sock.get(), F_SETFL, flags & ~O_NONBLOCK) < 0) return base::unique_fd();
            return sock;
        }
        if (errno != EAGAIN) return base::unique_fd();
        // The backlog is full: a Unix listener gives no wake-up for room, so look again shortly.
        int left = deadline.left();
        if (left == 0) {
            errno = ETIMEDOUT;
            return base::unique_fd();
        }
        usleep(static_cast<useconds_t>(1000 * (left < 0 ? 10 : std::min(left, 10))));
    }
}

base::unique_fd WireIo::Bind(const std::string& path) {
    sockaddr_un addr;
    socklen_t len;
    base::unique_fd dirFd;
    if (!platform::MakeUnixAddress(path, &addr, &len, &dirFd)) return base::unique_fd();
    base::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sock.ok()) return sock;
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), len) < 0) return base::unique_fd();
    return sock;
}

}  // namespace android
