#define LOG_TAG "dorvad"

#include "utils/dump/CaptureProgress.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <android-base/file.h>
#include <log/log.h>

#include "utils/ConfinedPath.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/TempName.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
namespace layout = velmar::kolto::capture_layout;
using velmar::kolto::TempName;

thread_local CaptureProgress* tCurrent = nullptr;
constexpr std::chrono::milliseconds kMinInterval(10);
constexpr int64_t kSweepSeconds = 60;
std::atomic<int64_t> gLastSweep{0};

bool IsPid(const char* name, pid_t* pid) {
    char* end = nullptr;
    errno = 0;
    const long value = strtol(name, &end, 10);
    if (name[0] < '1' || name[0] > '9' || *end != '\0' || errno != 0 || value > 0x3fffffff) return false;
    *pid = static_cast<pid_t>(value);
    return true;
}

// A file per client that ordered a capture stays until the client is gone:
// it reads the last state after its call returns.
void RemoveGone(int dirFd) {
    base::unique_fd own(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    velmar::kolto::ScopedDir dir = velmar::kolto::AdoptDir(own);
    if (!dir) return;
    std::vector<std::string> gone;
    while (struct dirent* entry = readdir(dir.get())) {
        pid_t pid = 0;
        if (IsPid(entry->d_name, &pid) && kill(pid, 0) != 0 && errno == ESRCH) gone.push_back(entry->d_name);
    }
    for (const std::string& name : gone) unlinkat(dirFd, name.c_str(), 0);
}

}  // namespace

CaptureProgress::CaptureProgress(pid_t client) : client_(client), outer_(tCurrent) {
    tCurrent = this;
    if (client_ <= 0) return;
    std::string why;
    dir_ = velmar::kolto::ConfinedPath::MakeDirs(paths::kCaptureProgressDir, paths::kDataMountPoint, 0755, &why);
    if (!dir_.ok()) {
        ALOGW("capture progress is not published: %s", why.c_str());
        return;
    }
    fchmod(dir_.get(), 0755);
    // Once a minute at most: the files of clients gone since are few, and a
    // capture ordered right after another need not wait for their removal.
    const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                            std::chrono::steady_clock::now().time_since_epoch()).count();
    int64_t last = gLastSweep.load();
    if ((last == 0 || now - last >= kSweepSeconds) && gLastSweep.compare_exchange_strong(last, now)) {
        TempName::RemoveLeftovers(dir_.get(), paths::kCaptureProgressDir);
        RemoveGone(dir_.get());
    }
    Publish();
}

CaptureProgress::~CaptureProgress() { tCurrent = outer_; }

void CaptureProgress::Archive(const std::string& deviceArchive) {
    if (tCurrent == nullptr) return;
    // As the client will find it: a base ending in '/' makes "//" in paths.
    std::string clean;
    for (char c : deviceArchive) {
        if (c != '/' || clean.empty() || clean.back() != '/') clean += c;
    }
    tCurrent->progress_.archive = clean;
    tCurrent->Publish();
}

void CaptureProgress::Sections(size_t done, size_t total) {
    if (tCurrent == nullptr) return;
    CaptureProgress& self = *tCurrent;
    self.progress_.done = done;
    self.progress_.total = total;
    if (done == self.shown_.done && total == self.shown_.total) return;
    // Clients look a few times a second: a quick run of sections is written
    // once, not once each; a new total and the last section always. What
    // waits is written when the caller asks again (the pool does while a
    // section runs long).
    const bool news = total != self.shown_.total || done == total;
    if (!news && std::chrono::steady_clock::now() - self.published_ < kMinInterval) return;
    self.Publish();
}

// Not synced: the state is for a client following it now, and a crash ends
// the capture it describes anyway.
void CaptureProgress::Publish() {
    if (!dir_.ok() || failed_) return;
    const std::string name = std::to_string(client_);
    const std::string text = layout::FormatProgress(progress_);
    std::string temp;
    base::unique_fd fd = TempName::CreateAt(dir_.get(), name, 0644, &temp);
    const bool written = fd.ok() && fchmod(fd.get(), 0644) == 0 && base::WriteFully(fd.get(), text.data(), text.size());
    if (written && renameat(dir_.get(), temp.c_str(), dir_.get(), name.c_str()) == 0) {
        published_ = std::chrono::steady_clock::now();
        shown_ = progress_;
        return;
    }
    const int error = errno;
    if (fd.ok()) unlinkat(dir_.get(), temp.c_str(), 0);
    // Once per capture: a full disk must not fill the log too.
    failed_ = true;
    ALOGW("capture progress for %d not published: %s", static_cast<int>(client_), strerror(error));
}

}  // namespace android
