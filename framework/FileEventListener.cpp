#define LOG_TAG "Tarnis-FileEventListener"

#include "framework/FileEventListener.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

#include <log/log.h>

#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {

namespace {

// wd, mask, cookie, len: what precedes the name of every event.
constexpr size_t kEventHeader = offsetof(struct inotify_event, name);
static_assert(kEventHeader == 16, "inotify event header");
constexpr size_t kReadSize = 512;
// Without a wake-up descriptor, how often the loop looks whether to stop.
constexpr int kStopCheckMs = 100;

}  // namespace

FileEventListener::FileEventListener(std::string name, std::vector<std::string> paths, uint32_t mask)
    : name(std::move(name)) {
    watches.max_load_factor(1.0f);
    thread = TarnisHandlerThread::create(this->name);
    // Non-blocking, because the loop waits in poll() next to the wake-up
    // descriptor: closing the descriptor would not end a blocked read().
    inotifyFd.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotifyFd.ok()) {
        ALOGE("[%s] init new inotify fd failed!, error: %s", "FileEventListener", strerror(errno));
        return;
    }
    wakeFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    for (const std::string& path : paths) {
        if (addWatching(path, mask) != 0) {
            ALOGE("[%s] add file watch failed! path: %s, error: %s", "FileEventListener",
                  StringUtil::ForLog(path).c_str(),
                  strerror(errno));
        }
    }
    TarnisLooper* looper = thread->getLooper();
    if (looper == nullptr) return;
    handler = std::make_shared<TarnisHandler>(looper, nullptr);
    handler->post([this] { listenLoop(); });
}

FileEventListener::~FileEventListener() {
    ALOGD("[%s] Cleanup...", "~FileEventListener");
    stop();
    std::vector<std::string> paths;
    {
        std::lock_guard<std::mutex> guard(watchLock);
        for (const auto& entry : watches) paths.push_back(entry.first);
    }
    for (const std::string& path : paths) removeWatching(path);
    {
        std::lock_guard<std::mutex> guard(watchLock);
        inotifyFd.reset();
    }
    wakeFd.reset();
    delete thread;
    thread = nullptr;
    ALOGD("[%s] Cleanup Done!", "~FileEventListener");
}

int FileEventListener::addWatching(std::string path, uint32_t mask) {
    // The device path becomes a file-system path only here, for the kernel.
    const std::string target = paths::Get(path);
    return addWatch(path, target, mask | IN_DONT_FOLLOW);
}

int FileEventListener::addWatching(std::string path, int dirFd, uint32_t mask) {
    // The descriptor's /proc name is the one link followed, and it leads to
    // the open directory itself.
    return addWatch(path, "/proc/self/fd/" + std::to_string(dirFd), (mask & ~IN_DONT_FOLLOW) | IN_ONLYDIR);
}

int FileEventListener::addWatch(const std::string& path, const std::string& target, uint32_t mask) {
    std::lock_guard<std::mutex> guard(watchLock);
    // errno is set on every failure, as the constructor reports it.
    if (!inotifyFd.ok()) {
        errno = EBADF;
        return -1;
    }
    if (watches.count(path) != 0) {
        ALOGI("[%s] addWatching for %s failed! error: Already Watched", "addWatching",
              StringUtil::ForLog(path).c_str());
        errno = EEXIST;
        return -1;
    }
    const int wd = inotify_add_watch(inotifyFd.get(), target.c_str(), mask);
    if (wd < 0) {
        const int error = errno;
        ALOGE("[%s] addWatching for %s failed! error: %s", "addWatching", StringUtil::ForLog(path).c_str(),
              strerror(error));
        errno = error;
        return -1;
    }
    watches[path] = wd;
    return 0;
}

bool FileEventListener::removeWatching(std::string path) {
    std::lock_guard<std::mutex> guard(watchLock);
    if (!inotifyFd.ok()) return false;
    auto found = watches.find(path);
    if (found == watches.end()) return false;
    const int wd = found->second;
    watches.erase(found);
    // Two spellings of one file (a trailing slash, a link) share the
    // descriptor: it stays while the other is still watched.
    for (const auto& entry : watches) {
        if (entry.second == wd) return true;
    }
    inotify_rm_watch(inotifyFd.get(), wd);
    return true;
}

void FileEventListener::stop() {
    std::unique_lock<std::mutex> guard(stateLock);
    stopping.store(true);
    if (wakeFd.ok()) {
        const uint64_t one = 1;
        if (write(wakeFd.get(), &one, sizeof(one)) < 0) {
            // Only fails when the counter is already non-zero: woken anyway.
        }
    }
    // From OnFileEvent: the loop ends once that event returns.
    if (looping && loopThread == std::this_thread::get_id()) return;
    stateCond.wait(guard, [this] { return !looping; });
}

void FileEventListener::listenLoop() {
    {
        std::lock_guard<std::mutex> guard(stateLock);
        if (stopping.load()) return;
        looping = true;
        loopThread = std::this_thread::get_id();
    }
    alignas(struct inotify_event) char buffer[kReadSize];
    while (inotifyFd.ok() && !stopping.load()) {
        struct pollfd fds[2] = {{inotifyFd.get(), POLLIN, 0}, {wakeFd.get(), POLLIN, 0}};
        const bool canWake = wakeFd.ok();
        const int ready = poll(fds, canWake ? 2 : 1, canWake ? -1 : kStopCheckMs);
        if (ready < 0 && errno != EINTR) {
            ALOGE("[%s] poll failed! error: %s", "listenLoop", strerror(errno));
            break;
        }
        if (stopping.load()) break;
        if (ready <= 0 || fds[0].revents == 0) continue;
        const ssize_t got = TEMP_FAILURE_RETRY(read(inotifyFd.get(), buffer, sizeof(buffer)));
        if (got < static_cast<ssize_t>(kEventHeader)) {
            // Nothing there after all (another reader, a spurious wake-up).
            if (got < 0 && errno == EAGAIN) continue;
            ALOGE("[%s] ***** ERROR! got a short event!", "listenLoop");
            break;
        }
        const size_t used = static_cast<size_t>(got);
        size_t offset = 0;
        while (offset + kEventHeader <= used && !stopping.load()) {
            struct inotify_event event;
            memcpy(&event, buffer + offset, kEventHeader);
            char* field = buffer + offset + kEventHeader;
            // The kernel never cuts an event, but a length running past what
            // was read must not make us read past it either.
            const size_t available = used - offset - kEventHeader;
            const size_t fieldLen = event.len < available ? event.len : available;
            std::optional<std::string> file;
            if (fieldLen != 0) {
                if (fieldLen == event.len) field[fieldLen - 1] = '\0';
                if (field[0] != '\0') file.emplace(field, strnlen(field, fieldLen));
            }
            dispatch(event.mask, event.wd, std::move(file));
            offset += kEventHeader + event.len;
        }
    }
    std::lock_guard<std::mutex> guard(stateLock);
    looping = false;
    stateCond.notify_all();
}

void FileEventListener::OnQueueOverflow() {
    ALOGW("[%s] %s: the event queue overflowed, events were lost", "listenLoop", StringUtil::ForLog(name).c_str());
}

void FileEventListener::dispatch(uint32_t mask, int wd, std::optional<std::string> file) {
    // Of no watch (its descriptor is -1): not to be looked up, or removed.
    if ((mask & IN_Q_OVERFLOW) != 0) {
        OnQueueOverflow();
        return;
    }
    std::string path;
    {
        std::lock_guard<std::mutex> guard(watchLock);
        bool found = false;
        for (const auto& entry : watches) {
            if (entry.second == wd) {
                path = entry.first;
                found = true;
                break;
            }
        }
        if (!found) {
            // Left over from a watch removed meanwhile; checked and dropped
            // under the lock so that a watch added right now is not hit.
            ALOGW("[%s] wd %d is not in our watching list, remove watching!", "listenLoop", wd);
            inotify_rm_watch(inotifyFd.get(), wd);
            return;
        }
    }
    OnFileEvent(mask, std::move(file), path);
}

}  // namespace kolto
}  // namespace velmar
