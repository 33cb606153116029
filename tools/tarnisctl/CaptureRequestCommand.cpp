#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
#include "tools/tarnisctl/JsonWriter.h"
#include "tools/tarnisctl/ProgressWatch.h"
#include "utils/CaptureLayout.h"
#include "utils/Paths.h"

namespace tarnisctl {
namespace {

namespace paths = velmar::kolto::paths;

// A capture runs up to ~25 s of tools, then packs: two minutes is plenty.
constexpr int kDefaultCaptureTimeoutS = 120;
constexpr char kResponse[] = "finish";
// How often the published progress is looked at while the answer is awaited.
constexpr int64_t kWatchPollMs = 20;


int CaptureRequest(const std::vector<std::string>& given) {
    std::vector<std::string> args = given;
    const bool json = TakeJsonOption(&args);
    std::string name;
    bool haveName = false;
    bool protocol = false;
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
        } else if (arg == "-p") {
            protocol = true;
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

    if (json && protocol) {
        return UsageError("capture-request: -p and --json are two ways of printing the result; choose one");
    }
    ProgressWatch watch(ProgressWatch::Choose(protocol), json);
    const time_t started = time(nullptr);
    android::base::unique_fd fd(socket_local_client("dorvad", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
    if (!fd.ok()) {
        const int error = errno;
        return watch.Fail("tarnisctl: cannot reach the capture server at " +
                          paths::Get(std::string(paths::kSocketDir) + "dorvad") + ": " + strerror(error));
    }
    std::string request = {'\0', '\0', '\0', static_cast<char>(name.size())};
    request += name;
    // The peer may go away: no SIGPIPE, a failed write says so.
    signal(SIGPIPE, SIG_IGN);
    if (!android::base::WriteFully(fd, request.data(), request.size())) {
        return watch.Fail(std::string("tarnisctl: sending the request failed: ") + strerror(errno));
    }

    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(timeoutS * 1000));
    std::string reply;
    while (reply.size() < strlen(kResponse)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            char seconds[32];
            snprintf(seconds, sizeof(seconds), "%g", timeoutS);
            return watch.Fail(std::string("tarnisctl: no answer from the capture server within ") + seconds + " s");
        }
        struct pollfd pfd = {fd.get(), POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(std::min<int64_t>(left.count(), kWatchPollMs)));
        watch.Poll();
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buffer[16];
        const ssize_t n = TEMP_FAILURE_RETRY(recv(fd.get(), buffer, sizeof(buffer), 0));
        if (n <= 0) break;
        reply.append(buffer, static_cast<size_t>(n));
    }
    watch.Poll();
    if (reply != kResponse) {
        return watch.Fail("tarnisctl: the capture server closed the connection without finishing (answer: \"" + reply +
                          "\")");
    }

    namespace layout = velmar::kolto::capture_layout;
    const std::string dir =
        paths::Get(layout::CaptureServerDir(name, android::base::GetBoolProperty("ro.build.ab_update", false)));
    const struct timespec since = {started - 1, 0};
    const std::string archive = layout::FindNewestArchive({dir + "/" + name}, name + "_", true, since);
    if (archive.empty()) {
        return watch.Fail("tarnisctl: the capture of \"" + name +
                          "\" finished but left no archive: it was too small (under 1024 bytes) and deleted, or the "
                          "name was refused (see the daemon's log)");
    }
    return watch.Ok(archive);
}

CtlCommandRegister gCaptureRequest({"capture-request", "[--json] NAME [--timeout S] [-p]",
                                    "ask the capture server (socket dorvad) for a quick capture; prints the archive "
                                    "(waits up to S seconds, default 120). -p: progress as capture -p gives it",
                                    CaptureRequest});

}  // namespace
}  // namespace tarnisctl
