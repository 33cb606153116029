#define LOG_TAG "dorvad"

#include "utils/dump/DumpstateClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/Paths.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;

constexpr char kDumpstateSocket[] = "dumpstate";
constexpr char kBugreportService[] = "tarnBugreportState";
constexpr char kLiteBugreportService[] = "nuvibmdump";
constexpr char kLiteTargetProperty[] = "sys.nuvi.bm_zip";
constexpr int kConnectTries = 20;
constexpr int kConnectPauseMs = 500;
constexpr int kBugreportTimeoutSeconds = 50;
constexpr int kLiteTimeoutSeconds = 30;
constexpr size_t kReplySize = 512;
constexpr size_t kLiteReplySize = 255;

// Connects to the socket, which its service may still be creating: 20
// tries, half a second apart.
base::unique_fd Connect() {
    for (int attempt = 0; attempt < kConnectTries; ++attempt) {
        base::unique_fd fd(socket_local_client(kDumpstateSocket, ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
        if (fd.ok()) return fd;
        if (attempt + 1 < kConnectTries) {
            const int saved = errno;
            velmar::kolto::GetClock().SleepMs(kConnectPauseMs);
            errno = saved;
        }
    }
    return base::unique_fd();
}

bool SetTimeout(int fd, int option, int seconds) {
    struct timeval tv = {seconds, 0};
    return setsockopt(fd, SOL_SOCKET, option, &tv, sizeof(tv)) == 0;
}

bool SendAll(int fd, const std::string& message) {
    size_t sent = 0;
    while (sent < message.size()) {
        const ssize_t n = TEMP_FAILURE_RETRY(send(fd, message.data() + sent, message.size() - sent, MSG_NOSIGNAL));
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

// The report the service names, when it is a regular file ("" otherwise).
// The reply is a device path.
std::string ReportPath(const char* reply) {
    std::string answered(reply);
    while (!answered.empty() && (answered.back() == '\n' || answered.back() == '\r')) answered.pop_back();
    // The service names the report as it sees the file system, the sandbox
    // root included when there is one: the daemon keeps its device path.
    const std::string device = paths::DeviceOf(answered);
    struct stat st;
    errno = 0;
    if (stat(paths::Get(device).c_str(), &st) == 0 && S_ISREG(st.st_mode)) return device;
    ALOGE("file stat get failed: %s", strerror(errno != 0 ? errno : EINVAL));
    return "";
}

}  // namespace

std::string DumpstateClient::RequestBugreport(const std::string& logDir, const std::string& param) {
    base::SetProperty("ctl.start", kBugreportService);
    std::string report;
    base::unique_fd socketFd(Connect());
    if (!socketFd.ok()) {
        ALOGE("Failed to connect dumpstate socket.");
    } else {
        if (!SetTimeout(socketFd.get(), SO_RCVTIMEO, kBugreportTimeoutSeconds) ||
            !SetTimeout(socketFd.get(), SO_SNDTIMEO, kBugreportTimeoutSeconds)) {
            ALOGE("failed to set recv/send timeout options.");
        }
        if (!SendAll(socketFd.get(), logDir + "|" + param)) {
            ALOGE("send client msg failed.");
        } else {
            // At most 511 bytes, so the reply is always terminated.
            char reply[kReplySize];
            memset(reply, 0, sizeof(reply));
            const ssize_t n = TEMP_FAILURE_RETRY(recv(socketFd.get(), reply, sizeof(reply) - 1, 0));
            if (n < 0) {
                ALOGE("recv server msg failed. error info: %s", strerror(errno));
            } else {
                ALOGI("recv response from dumpstate: %s", reply);
                report = ReportPath(reply);
            }
        }
    }
    socketFd.reset();
    base::SetProperty("ctl.stop", kBugreportService);
    return report;
}

void DumpstateClient::RequestLiteBugreport(const std::string& target) {
    base::SetProperty(kLiteTargetProperty, "@" + target);
    base::SetProperty("ctl.start", kLiteBugreportService);
    base::unique_fd socketFd(Connect());
    if (!socketFd.ok()) {
        ALOGE("Failed to connect dumpstate socket: %s", strerror(errno));
    } else {
        if (fcntl(socketFd.get(), F_SETFD, FD_CLOEXEC) != 0) {
            ALOGE("Failed to set the flag of opened file descriptor: %s", strerror(errno));
        }
        SetTimeout(socketFd.get(), SO_RCVTIMEO, kLiteTimeoutSeconds);
        char reply[kLiteReplySize + 1];
        size_t got = 0;
        errno = 0;
        while (got < kLiteReplySize) {
            const ssize_t n = TEMP_FAILURE_RETRY(recv(socketFd.get(), reply + got, kLiteReplySize - got, 0));
            if (n <= 0) break;
            got += static_cast<size_t>(n);
        }
        reply[got] = '\0';
        if (got < kLiteReplySize) {
            ALOGE("Read buf failed: %s", errno != 0 ? strerror(errno) : "end of stream");
        } else {
            ALOGD("read response from dumpstate: %s", reply);
        }
    }
    socketFd.reset();
    base::SetProperty("ctl.stop", kLiteBugreportService);
    base::SetProperty(kLiteTargetProperty, "");
}

}  // namespace android
