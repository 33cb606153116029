#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/sockets.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "utils/CaptureLayout.h"
#include "utils/Paths.h"

namespace tarnisctl {
namespace {

namespace paths = velmar::kolto::paths;

// A capture runs up to ~25 s of tools, then packs: two minutes is plenty.
constexpr int kDefaultCaptureTimeoutS = 120;
constexpr char kResponse[] = "finish";


int CaptureRequest(const std::vector<std::string>& args) {
    std::string name;
    bool haveName = false;
    double timeoutS = RequestedTimeoutMs() > 0 ? RequestedTimeoutMs() / 1000.0 : kDefaultCaptureTimeoutS;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--timeout" || arg.compare(0, 10, "--timeout=") == 0) {
            std::string value;
            if (arg == "--timeout") {
                if (i + 1 >= args.size()) return UsageError("capture-request: --timeout needs a number of seconds");
                value = args[++i];
            } else {
                value = arg.substr(10);
            }
            char* end = nullptr;
            errno = 0;
            timeoutS = strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || errno != 0 || !(timeoutS > 0) || timeoutS > 86400) {
                return UsageError("capture-request: --timeout needs a number of seconds between 0 and 86400, not '" +
                                  value + "'");
            }
        } else if (arg.size() > 1 && arg[0] == '-' && arg != "--") {
            return UsageError("capture-request: unknown option " + arg);
        } else if (!haveName) {
            name = arg;
            haveName = true;
        } else {
            return UsageError("capture-request: one NAME only");
        }
    }
    if (!haveName) return UsageError("capture-request: NAME missing");
    // The header has one byte for the length.
    if (name.size() > 255) return UsageError("capture-request: NAME is longer than 255 bytes");

    const time_t started = time(nullptr);
    android::base::unique_fd fd(socket_local_client("dorvad", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
    if (!fd.ok()) {
        const int error = errno;
        fprintf(stderr, "tarnisctl: cannot reach the capture server at %s: %s\n",
                paths::Get(std::string(paths::kSocketDir) + "dorvad").c_str(), strerror(error));
        return 1;
    }
    std::string request = {'\0', '\0', '\0', static_cast<char>(name.size())};
    request += name;
    // The peer may go away: no SIGPIPE, a failed write says so.
    signal(SIGPIPE, SIG_IGN);
    if (!android::base::WriteFully(fd, request.data(), request.size())) {
        fprintf(stderr, "tarnisctl: sending the request failed: %s\n", strerror(errno));
        return 1;
    }

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(timeoutS * 1000));
    std::string reply;
    while (reply.size() < strlen(kResponse)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            fprintf(stderr, "tarnisctl: no answer from the capture server within %g s\n", timeoutS);
            return 1;
        }
        struct pollfd pfd = {fd.get(), POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buffer[16];
        const ssize_t n = TEMP_FAILURE_RETRY(recv(fd.get(), buffer, sizeof(buffer), 0));
        if (n <= 0) break;
        reply.append(buffer, static_cast<size_t>(n));
    }
    if (reply != kResponse) {
        fprintf(stderr, "tarnisctl: the capture server closed the connection without finishing (answer: \"%s\")\n",
                reply.c_str());
        return 1;
    }

    namespace layout = velmar::kolto::capture_layout;
    const std::string dir =
        paths::Get(layout::CaptureServerDir(name, android::base::GetBoolProperty("ro.build.ab_update", false)));
    const struct timespec since = {started - 1, 0};
    const std::string archive = layout::FindNewestArchive({dir + "/" + name}, name + "_", true, since);
    if (archive.empty()) {
        fprintf(stderr,
                "tarnisctl: the capture of \"%s\" finished but left no archive: it was too small (under 1024 "
                "bytes) and deleted, or the name was refused (see the daemon's log)\n",
                name.c_str());
        return 1;
    }
    printf("%s\n", archive.c_str());
    return 0;
}

CtlCommandRegister gCaptureRequest({"capture-request", "NAME [--timeout S]",
                                    "ask the capture server (socket dorvad) for a quick capture; prints the archive "
                                    "(waits up to S seconds, default 120)",
                                    CaptureRequest});

}  // namespace
}  // namespace tarnisctl
