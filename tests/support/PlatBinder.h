#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <host/Host.h>

#include "platform/binder/BpBinder.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

namespace tarnis_test {

// A child process stepped through with single bytes each way, every step bounded, killed if still running at
// the end. It keeps only the standard descriptors and its end of the channel: a copy of a server socket
// inherited from the test process would keep that connection open after the server closed it.
class PlatChild {
public:
    static constexpr uid_t kSameUid = static_cast<uid_t>(-1);
    static constexpr int kDeadlineMs = 30000;

    // The child drops to `uid` unless kSameUid, runs body(*this) and exits with its result.
    template <typename Body>
    PlatChild(uid_t uid, Body body) {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            const int moved = fcntl(pair[1], F_DUPFD_CLOEXEC, 4);  // so that dup2 cannot land on itself
            if (moved < 0 || dup2(moved, 3) != 3) _exit(97);
            syscall(SYS_close_range, 4U, ~0U, 0U);
            fd_ = 3;
            if (uid != kSameUid && (setgid(uid) != 0 || setuid(uid) != 0)) _exit(99);
            _exit(body(*this));
        }
        close(pair[1]);
        fd_ = pair[0];
    }
    ~PlatChild() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(fd_);
    }

    pid_t pid() const { return pid_; }
    int fd() const { return fd_; }
    bool Say(char c) { return Tell(std::string(1, c)); }
    bool Tell(const std::string& text) {
        return send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // The next byte from the other side; 0 when it went away or said nothing in time.
    char Hear(int timeoutMs = kDeadlineMs) {
        pollfd pfd{fd_, POLLIN, 0};
        char c = 0;
        return poll(&pfd, 1, timeoutMs) == 1 && recv(fd_, &c, 1, 0) == 1 ? c : 0;
    }
    // What the other side says until it closes its end (text: no 0 bytes).
    std::string HearAll() {
        std::string heard;
        for (char c; (c = Hear()) != 0;) heard += c;
        return heard;
    }
    // The child's exit status; -1 when it did not exit normally in time (it is killed then).
    int Exit(int timeoutMs = kDeadlineMs) {
        int status = 0;
        const bool ended = WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                                   std::chrono::milliseconds(timeoutMs));
        if (!ended) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        reaped_ = true;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    bool reaped_ = false;
};

// Whether the peer closed the connection: end of stream within `timeoutMs`.
inline bool Ended(const android::base::unique_fd& fd, int timeoutMs) {
    pollfd pfd{fd.get(), POLLIN, 0};
    char bytes[256];
    ssize_t n = 1;
    while (n > 0 && poll(&pfd, 1, timeoutMs) == 1) n = read(fd.get(), bytes, sizeof(bytes));
    return n == 0;
}

// An ITarnisSsi whose "echo" is a service-specific error naming what it got and the caller it saw.
class EchoSsi : public aidl::velmar::system::tarnis::common::BnTarnisSsi {
public:
    using Status = ndk::ScopedAStatus;
    static Status Echo(const std::string& text) {
        const std::string who = "|uid=" + std::to_string(AIBinder_getCallingUid()) +
                                "|pid=" + std::to_string(AIBinder_getCallingPid());
        return Status::fromServiceSpecificErrorWithMessage(7, text + who);
    }

    Status reportSimpleEvent(int32_t type, const std::string& event) override {
        lastUid = AIBinder_getCallingUid();
        return event == "echo" ? Echo(std::to_string(type)) : Status::ok();
    }
    Status reportEventV2(const std::string&, const std::string&, const std::string&, bool) override { return {}; }
    Status reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c) override {
        return Echo(a + b + c);
    }
    Status appCaptureLog(const std::string&, const std::string&, const std::string&, const std::string&) override {
        return {};
    }
    Status reportEventsV2(const std::string&, const std::vector<std::string>&, const std::string&, bool) override {
        return {};
    }
    Status reportTrelvoEvent(const std::string&, const std::string&, const std::string&, int32_t) override {
        return {};
    }
    Status reportTrelvoEvents(const std::string&, const std::string&, const std::vector<std::string>&,
                              int32_t) override {
        return {};
    }
    binder_status_t dump(int fd, const char** args, uint32_t numArgs) override {
        std::string out = "dump";
        for (uint32_t i = 0; i < numArgs; ++i) out += std::string(" ") + args[i];
        out += "\n";
        return write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? STATUS_OK
                                                                                    : STATUS_UNKNOWN_ERROR;
    }

    std::atomic<uid_t> lastUid{0};
};

// A sandbox root that a child dropped to another uid can reach, and proxy calls with a deadline.
class PlatBinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(root_.path().c_str(), 0755);
        platform::SetRoot(root_.path());
        android::BpBinder::SetCallTimeoutMs(PlatChild::kDeadlineMs);
    }
    void TearDown() override {
        android::ServiceManager::instance().removeAllServices();
        android::BpBinder::SetCallTimeoutMs(-1);
        platform::SetRoot("/");
    }
    // A proxy's binder over the socket, though the service is this process's.
    static android::sp<android::IBinder> Remote(const std::string& name) {
        return android::BpBinder::Connect(name, android::ServiceManager::SocketPath(name));
    }

    TempDir root_;
};

}  // namespace tarnis_test
