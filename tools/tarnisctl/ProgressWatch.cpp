#include "tools/tarnisctl/ProgressWatch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include <android-base/file.h>

#include "tools/tarnisctl/JsonWriter.h"
#include "utils/CaptureLayout.h"
#include "utils/Paths.h"

namespace tarnisctl {
namespace {

namespace layout = velmar::kolto::capture_layout;
namespace paths = velmar::kolto::paths;

constexpr auto kPollInterval = std::chrono::milliseconds(20);
constexpr size_t kBarWidth = 30;

bool Before(const struct timespec& a, const struct timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace

ProgressWatch::Mode ProgressWatch::Choose(bool protocol) {
    if (protocol) return Mode::kProtocol;
    return isatty(STDERR_FILENO) ? Mode::kBar : Mode::kQuiet;
}

ProgressWatch::ProgressWatch(Mode mode, bool json) : mode_(mode), json_(json) {
    // A file left by an earlier process with this pid is older than us.
    clock_gettime(CLOCK_REALTIME, &start_);
    start_.tv_sec -= 1;
}

int ProgressWatch::Follow(const std::function<int()>& work) {
    if (mode_ == Mode::kQuiet) return work();
    std::future<int> result = std::async(std::launch::async, work);
    while (result.wait_for(kPollInterval) != std::future_status::ready) Poll();
    Poll();
    return result.get();
}

void ProgressWatch::Poll() {
    if (mode_ == Mode::kQuiet) return;
    const std::string file = paths::Get(layout::ProgressFile(static_cast<int>(getpid())));
    struct stat st {};
    std::string text;
    layout::Progress progress;
    if (stat(file.c_str(), &st) != 0 || Before(st.st_mtim, start_)) return;
    if (!android::base::ReadFileToString(file, &text) || !layout::ParseProgress(text, &progress)) return;
    if (!begun_ && !progress.archive.empty()) {
        begun_ = true;
        if (mode_ == Mode::kProtocol) printf("BEGIN:%s\n", paths::Get(progress.archive).c_str());
    }
    if (progress.total == 0 || (progress.done == done_ && progress.total == total_)) {
        fflush(stdout);
        return;
    }
    done_ = progress.done;
    total_ = progress.total;
    if (mode_ == Mode::kProtocol) {
        printf("PROGRESS:%zu/%zu\n", done_, total_);
        fflush(stdout);
        return;
    }
    const size_t filled = kBarWidth * done_ / total_;
    fprintf(stderr, "\rcapture [%s%s] %zu/%zu", std::string(filled, '#').c_str(),
            std::string(kBarWidth - filled, ' ').c_str(), done_, total_);
    fflush(stderr);
    barShown_ = true;
}

void ProgressWatch::ClearBar() {
    if (!barShown_) return;
    fprintf(stderr, "\r\033[K");
    fflush(stderr);
    barShown_ = false;
}

int ProgressWatch::Ok(const std::string& archive) {
    ClearBar();
    if (mode_ == Mode::kProtocol) {
        printf("OK:%s\n", archive.c_str());
    } else if (json_) {
        return JsonWriter().BeginObject().Key("archive").String(archive).EndObject().Print();
    } else {
        printf("%s\n", archive.c_str());
    }
    fflush(stdout);
    return 0;
}

int ProgressWatch::Fail(const std::string& message) {
    ClearBar();
    if (mode_ == Mode::kProtocol) {
        printf("FAIL:%s\n", message.c_str());
        fflush(stdout);
    } else {
        fprintf(stderr, "%s\n", message.c_str());
    }
    return 1;
}

}  // namespace tarnisctl
