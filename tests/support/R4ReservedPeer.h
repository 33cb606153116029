#pragma once

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>
#include <host/Host.h>

#include "platform/Sockets.h"
#include "tests/support/TempDir.h"

namespace tarnis_test {

// A peer on the root's reserved socket `name` (below a root of any depth) serving each connection with
// `serve` on a thread of its own, until Stop() or the object goes.
class ReservedPeer {
public:
    ReservedPeer(const std::string& name, std::function<void(int fd)> serve)
        : path_(platform::ReservedSocketPath(name)) {
        RunShell("mkdir -p \"$(dirname '" + path_ + "')\"");
        listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address;
        socklen_t length = 0;
        android::base::unique_fd dirFd;
        EXPECT_TRUE(platform::MakeUnixAddress(path_, &address, &length, &dirFd)) << strerror(errno);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), length), 0) << strerror(errno);
        EXPECT_EQ(listen(listener_.get(), 4), 0);
        thread_ = std::thread([this, serve = std::move(serve)] {
            for (;;) {
                android::base::unique_fd client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
                if (!client.ok()) return;
                // A client that connects and then says nothing costs ten seconds, not a hung test.
                const timeval patience{10, 0};
                setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
                serve(client.get());
            }
        });
    }
    ~ReservedPeer() { Stop(); }
    // After it, what `serve` recorded may be read without a lock.
    void Stop() {
        if (!thread_.joinable()) return;
        shutdown(listener_.get(), SHUT_RDWR);
        thread_.join();
        unlink(path_.c_str());
    }

private:
    const std::string path_;
    android::base::unique_fd listener_;
    std::thread thread_;
};

}  // namespace tarnis_test
