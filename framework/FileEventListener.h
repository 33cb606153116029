#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <android-base/unique_fd.h>

namespace velmar {
namespace kolto {

class TarnisHandler;
class TarnisHandlerThread;

// Watches paths with inotify on a thread of its own and hands each event to
// OnFileEvent there, one at a time, in the kernel's order. Paths are device
// paths, given and reported as such; below a sandbox root the kernel is
// given the path below it.
//
// The loop starts in this constructor, so an event on a path given to it may
// be dispatched before the subclass's own constructor has run: a subclass
// that cannot take that passes no paths here and calls addWatching() from
// its constructor body instead. Likewise the subclass part is gone before
// this destructor runs, so a subclass calls stop() first thing in its own
// destructor, lest an event reach a half-destroyed object. Never delete a
// listener from its OnFileEvent: its thread cannot join itself.
class FileEventListener {
public:
    // `name` also names the thread. A path that cannot be watched is logged
    // and skipped; the others are still watched.
    FileEventListener(std::string name, std::vector<std::string> paths, uint32_t mask);

    // `mask` is the inotify mask, `name` the file inside a watched directory
    // when the event carries one, `path` the watched path it came from.
    virtual void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& path) = 0;
    // The kernel's queue of events overflowed (IN_Q_OVERFLOW): events of any
    // watched path were dropped, so whatever was learnt from them may be
    // out of date. Called on the listener's thread, in order with the
    // events; the default only logs it.
    virtual void OnQueueOverflow();
    virtual ~FileEventListener();

    FileEventListener(const FileEventListener&) = delete;
    FileEventListener& operator=(const FileEventListener&) = delete;

    // 0 on success, non-zero when the path is already watched, cannot be
    // watched, or inotify could not be set up. Any thread. A link as the
    // path's last component is watched as the link itself (IN_DONT_FOLLOW),
    // never as what it points at; with IN_ONLYDIR it is refused.
    int addWatching(std::string path, uint32_t mask);
    // Watches the directory open as `dirFd`, reported as `path`: the very
    // directory the caller resolved and checked, even when a component of
    // `path` was swapped for a link since. The descriptor may be closed
    // afterwards.
    int addWatching(std::string path, int dirFd, uint32_t mask);
    // False when the path is not watched. Any thread.
    bool removeWatching(std::string path);

    // Ends the loop for good; once it returns no event is dispatched any more
    // (called from OnFileEvent, after that event). Safe to call repeatedly.
    void stop();

private:
    void listenLoop();
    int addWatch(const std::string& path, const std::string& target, uint32_t mask);
    void dispatch(uint32_t mask, int wd, std::optional<std::string> file);

    android::base::unique_fd inotifyFd;
    std::unordered_map<std::string, int> watches;
    std::string name;
    TarnisHandlerThread* thread = nullptr;

    // Guards `watches`: the loop looks up while callers add and remove.
    std::mutex watchLock;
    // Wakes the loop out of its wait when stop() is called.
    android::base::unique_fd wakeFd;
    std::shared_ptr<TarnisHandler> handler;
    std::mutex stateLock;
    std::condition_variable stateCond;
    std::atomic<bool> stopping{false};
    bool looping = false;
    std::thread::id loopThread;
};

}  // namespace kolto
}  // namespace velmar
