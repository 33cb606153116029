#include "platform/binder/DumpRelay.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>

#include <host/LogRateLimiter.h>

namespace android {
namespace {

using Clock = std::chrono::steady_clock;

// Keeps a write to a reader-less pipe from killing the process: SIGPIPE is
// blocked on this thread while the scope lasts, and one it raised is taken
// back before the old mask returns.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    }
    ~SigpipeGuard() {
        if (!wasPending_) {
            timespec zero{0, 0};
            while (sigtimedwait(&pipe_, nullptr, &zero) == SIGPIPE) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }

private:
    sigset_t pipe_;
    sigset_t old_;
    bool wasPending_ = false;
};

// The caller's descriptor, made safe to write without blocking. A socket is
// sent to with MSG_DONTWAIT; a pipe is opened anew through /proc so that the
// new open file is non-blocking without changing the flags of the caller's
// (they share the old one); anything else is written as it is, in pieces no
// larger than a pipe's atomic unit, after poll says there is room.
class Sink {
public:
    explicit Sink(int fd) : fd_(fd) {
        struct stat st;
        if (fstat(fd, &st) != 0) return;
        if (S_ISSOCK(st.st_mode)) {
            socket_ = true;
        } else if (S_ISFIFO(st.st_mode)) {
            std::string self = "/proc/self/fd/" + std::to_string(fd);
            own_.reset(open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
            if (own_.ok()) {
                fd_ = own_.get();
                nonBlocking_ = true;
            } else if (errno == ENXIO) {
                gone_ = true;  // a FIFO without a reader cannot be opened for writing
            }
        } else if (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode)) {
            regular_ = true;
        }
    }

    // 1 written, 0 out of time, -1 the reader is gone or the descriptor broken.
    int write(const char* data, size_t size, Clock::time_point deadline, size_t* written) {
        *written = 0;
        if (gone_) {
            errno = EPIPE;
            return -1;
        }
        while (*written < size) {
            size_t chunk = size - *written;
            if (!socket_ && !nonBlocking_ && !regular_) chunk = std::min<size_t>(chunk, PIPE_BUF);
            if (!socket_ && !nonBlocking_ && !regular_) {
                int ready = waitWritable(deadline);
                if (ready <= 0) return ready;
            }
            ssize_t n = socket_ ? send(fd_, data + *written, chunk, MSG_DONTWAIT | MSG_NOSIGNAL)
                                : ::write(fd_, data + *written, chunk);
            if (n > 0) {
                *written += static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                int ready = waitWritable(deadline);
                if (ready <= 0) return ready;
                continue;
            }
            if (n == 0) errno = EIO;
            return -1;
        }
        return 1;
    }

private:
    int waitWritable(Clock::time_point deadline) {
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) return 0;
            pollfd pfd{fd_, POLLOUT, 0};
            int r = poll(&pfd, 1, static_cast<int>(std::min<int64_t>(left, INT32_MAX)));
            if (r > 0) {
                if (pfd.revents & POLLERR) {
                    errno = EPIPE;
                    return -1;
                }
                return 1;
            }
            if (r < 0 && errno != EINTR) return -1;
        }
    }

    int fd_;
    base::unique_fd own_;
    bool socket_ = false;
    bool nonBlocking_ = false;
    bool regular_ = false;
    bool gone_ = false;
};

}  // namespace

status_t DumpRelay::Run(int callerFd, int timeoutMs, const std::string& who,
                        const std::function<status_t(int fd)>& dump) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    base::unique_fd memory(memfd_create("dump", MFD_CLOEXEC));
    if (!memory.ok()) {
        PLOG(ERROR) << "binder: dump of " << who << ": no memory file for the output";
        return NO_MEMORY;
    }
    const status_t status = dump(memory.get());
    const off_t total = lseek(memory.get(), 0, SEEK_END);
    if (total <= 0) return status;

    SigpipeGuard guard;
    Sink sink(callerFd);
    char chunk[64 * 1024];
    off_t offset = 0;
    while (offset < total) {
        ssize_t n = pread(memory.get(), chunk, std::min<off_t>(sizeof(chunk), total - offset), offset);
        if (n <= 0) {
            PLOG(ERROR) << "binder: dump of " << who << ": cannot read back the output";
            return UNKNOWN_ERROR;
        }
        size_t written = 0;
        int result = sink.write(chunk, static_cast<size_t>(n), deadline, &written);
        offset += static_cast<off_t>(written);
        if (result > 0) continue;
        // Any caller can fail its own dump on purpose, as often as it likes.
        static platform::LogRateLimiter undelivered(10, 60000);
        const int saved = errno;
        uint64_t suppressed = 0;
        if (!undelivered.Allow(&suppressed)) return result == 0 ? TIMED_OUT : DEAD_OBJECT;
        if (result == 0) {
            LOG(ERROR) << "binder: dump of " << who << ": the output was not drained within " << timeoutMs
                       << " ms; gave up after " << offset << " of " << total << " bytes"
                       << platform::LogRateLimiter::Summary(suppressed);
            return TIMED_OUT;
        }
        LOG(ERROR) << "binder: dump of " << who << ": the reader went away after " << offset << " of " << total
                   << " bytes (" << strerror(saved) << ")" << platform::LogRateLimiter::Summary(suppressed);
        return DEAD_OBJECT;
    }
    return status;
}

}  // namespace android
