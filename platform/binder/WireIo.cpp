#include "platform/binder/WireIo.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <utility>

#include "platform/binder/Parcel.h"

namespace android {
namespace {

// Fills `addr` for `path`, opening the parent directory into `dirFd` when the
// path is too long for sun_path.
bool MakeAddress(const std::string& path, sockaddr_un* addr, socklen_t* len, base::unique_fd* dirFd) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    std::string target = path;
    if (target.size() >= sizeof(addr->sun_path)) {
        size_t slash = path.rfind('/');
        if (slash == std::string::npos) return false;
        dirFd->reset(open(slash == 0 ? "/" : path.substr(0, slash).c_str(),
                          O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!dirFd->ok()) return false;
        target = "/proc/self/fd/" + std::to_string(dirFd->get()) + path.substr(slash);
        if (target.size() >= sizeof(addr->sun_path)) {
            errno = ENAMETOOLONG;
            return false;
        }
    }
    memcpy(addr->sun_path, target.c_str(), target.size());
    *len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + target.size() + 1);
    return true;
}

bool WaitFor(int sock, short events, int timeoutMs) {
    pollfd pfd{sock, events, 0};
    int r;
    do {
        r = poll(&pfd, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    return r > 0;
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
            if ((errno == EAGAIN || errno == EWOULDBLOCK) && WaitFor(sock, POLLOUT, timeoutMs)) continue;
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

status_t WireIo::Receive(int sock, uint32_t magic, uint32_t* codeOrStatus, Parcel* parcel) {
    std::string buffer;
    std::vector<base::unique_fd> fds;
    WireHeader header{};
    for (;;) {
        if (buffer.size() >= sizeof(header)) {
            memcpy(&header, buffer.data(), sizeof(header));
            if (header.magic != magic || header.dataSize > kMaxDataSize || header.fdCount > kMaxFds) {
                return BAD_VALUE;
            }
            if (buffer.size() >= sizeof(header) + header.dataSize) break;
        }
        // Blocking reads on a blocking socket: one system call per reply
        // in the common case.
        ssize_t n = ReceiveSome(sock, &buffer, &fds, true);
        if (n == 0) return DEAD_OBJECT;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                if (!WaitFor(sock, POLLIN, -1)) return DEAD_OBJECT;
                continue;
            }
            return DEAD_OBJECT;
        }
    }
    if (buffer.size() != sizeof(header) + header.dataSize || fds.size() != header.fdCount) {
        return BAD_VALUE;
    }
    *codeOrStatus = header.codeOrStatus;
    parcel->setData(buffer.substr(sizeof(header)), std::move(fds));
    return OK;
}

base::unique_fd WireIo::Connect(const std::string& path) {
    sockaddr_un addr;
    socklen_t len;
    base::unique_fd dirFd;
    if (!MakeAddress(path, &addr, &len, &dirFd)) return base::unique_fd();
    base::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock.ok()) return sock;
    int r;
    do {
        r = connect(sock.get(), reinterpret_cast<sockaddr*>(&addr), len);
    } while (r < 0 && errno == EINTR);
    if (r < 0) return base::unique_fd();
    return sock;
}

base::unique_fd WireIo::Bind(const std::string& path) {
    sockaddr_un addr;
    socklen_t len;
    base::unique_fd dirFd;
    if (!MakeAddress(path, &addr, &len, &dirFd)) return base::unique_fd();
    base::unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sock.ok()) return sock;
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), len) < 0) return base::unique_fd();
    return sock;
}

}  // namespace android
