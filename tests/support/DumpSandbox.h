#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/unique_fd.h>
#include <host/Host.h>

#include "platform/LogCapture.h"
#include "platform/Sockets.h"
#include "tests/support/LogLines.h"
#include "tests/support/TempDir.h"
#include "utils/dump/CaptureLogUtil.h"

namespace tarnis_test {

// Sends this process's standard error (and so that of every child forked
// meanwhile) to a file, for the lines children log.
class StderrToFile {
public:
    explicit StderrToFile(const std::string& path) : path_(path) {
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrToFile() { Restore(); }
    // Restores standard error and returns what was written meanwhile.
    std::string Take() {
        Restore();
        return ReadFile(path_);
    }

private:
    void Restore() {
        if (saved_ < 0) return;
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
    }
    std::string path_;
    int saved_ = -1;
};

// One connection on the reserved "dumpstate" socket of the current root:
// receives the request, lets the test react, sends the reply. Binds below a
// root of any depth, as the platform's own service would.
class FakeDumpstate {
public:
    // `readsRequest`: the client writes a request before it reads the reply.
    FakeDumpstate(bool readsRequest, std::function<std::string(const std::string& request)> answer)
        : answer_(std::move(answer)), path_(platform::ReservedSocketPath("dumpstate")) {
        RunShell("mkdir -p \"$(dirname '" + path_ + "')\"");
        listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        struct sockaddr_un address;
        socklen_t length = 0;
        android::base::unique_fd dirFd;
        EXPECT_TRUE(platform::MakeUnixAddress(path_, &address, &length, &dirFd)) << strerror(errno);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), length), 0) << strerror(errno);
        EXPECT_EQ(listen(listener_.get(), 1), 0);
        thread_ = std::thread([this, readsRequest] {
            android::base::unique_fd fd(accept(listener_.get(), nullptr, nullptr));
            if (!fd.ok()) return;
            if (readsRequest) {
                char buffer[1024] = {};
                const ssize_t n = recv(fd.get(), buffer, sizeof(buffer) - 1, 0);
                request_ = std::string(buffer, n > 0 ? static_cast<size_t>(n) : 0);
            }
            const std::string reply = answer_(request_);
            send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
        });
    }
    ~FakeDumpstate() {
        shutdown(listener_.get(), SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        unlink(path_.c_str());
    }
    std::string Request() {
        if (thread_.joinable()) thread_.join();
        return request_;
    }

private:
    std::function<std::string(const std::string&)> answer_;
    std::string path_;
    android::base::unique_fd listener_;
    std::thread thread_;
    std::string request_;
};

// A sandbox root for one test, with quick time-outs.
class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        android::CaptureLogUtil::Timeouts quick;
        quick.defaultSeconds = 1;
        quick.testModeSeconds = 2;
        quick.killWaitSeconds = 1;
        android::CaptureLogUtil::SetTimeoutsForTesting(quick);
        android::CaptureLogUtil::ResetTestModeForTesting();
    }
    void TearDown() override {
        android::CaptureLogUtil::SetTimeoutsForTesting(android::CaptureLogUtil::Timeouts());
        android::CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
        platform::SetRoot("/");
    }
    std::string Path(const std::string& devicePath) const { return platform::DevicePath(devicePath); }
    TempDir root_;
};

}  // namespace tarnis_test
