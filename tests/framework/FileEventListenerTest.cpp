#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <log/log.h>

#include "framework/FileEventListener.h"
#include "platform/LogCapture.h"
#include "tests/support/LogLines.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

using namespace velmar::kolto;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;

namespace {

const char kTag[] = "Tarnis-FileEventListener";

struct Event {
    uint32_t mask;
    std::optional<std::string> name;
    std::string path;
};

// Kept apart from the listener: it exists before the listener's thread and is read after it is gone.
class Recorder {
public:
    void Add(Event event) {
        std::unique_lock<std::mutex> guard(lock_);
        events_.push_back(std::move(event));
        if (events_.size() > 1 || !release_.valid()) return;
        guard.unlock();
        entered_.set_value();
        release_.wait_for(std::chrono::seconds(10));
    }
    // The first event holds the listener's thread (10 s at most) until `release`: what follows queues in the kernel.
    std::future<void> HoldFirst(std::shared_future<void> release) {
        release_ = std::move(release);
        return entered_.get_future();
    }
    bool WaitFor(const std::string& path, const std::optional<std::string>& name) {
        return tarnis_test::WaitFor([&] {
            const std::vector<Event> events = Events();
            return std::any_of(events.begin(), events.end(),
                               [&](const Event& event) { return event.path == path && event.name == name; });
        });
    }
    std::vector<Event> Events() {
        std::lock_guard<std::mutex> guard(lock_);
        return events_;
    }

private:
    std::mutex lock_;
    std::vector<Event> events_;
    std::shared_future<void> release_;
    std::promise<void> entered_;
};

// `added` paths are watched once the recorder is in place; others are touched after the call (TSan sees it).
class RecordingListener : public FileEventListener {
public:
    RecordingListener(Recorder* recorder, std::vector<std::string> paths, uint32_t mask,
                      const std::vector<std::string>& added = {}, bool stopOnEvent = false)
        : FileEventListener("FelTest", std::move(paths), mask), recorder_(recorder), stopOnEvent_(stopOnEvent) {
        for (const std::string& path : added) EXPECT_EQ(addWatching(path, mask), 0) << path;
    }
    ~RecordingListener() override { stop(); }
    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& path) override {
        if (stopOnEvent_) stop();
        recorder_->Add({mask, std::move(name), path});
    }

private:
    Recorder* const recorder_;
    const bool stopOnEvent_;
};

void MakeDirs(const std::vector<std::string>& dirs) {
    for (const std::string& dir : dirs) ASSERT_EQ(mkdir(dir.c_str(), 0755), 0) << dir;
}

class FileEventListenerTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (listener != nullptr) {
            EXPECT_TRUE(DeleteWithin(listener));
        }
    }
    // False after five seconds, when a file in every directory wakes a loop stuck in a read so that it ends.
    bool DeleteWithin(FileEventListener* going) {
        std::promise<void> deleted;
        std::future<void> done = deleted.get_future();
        std::thread deleter([going, &deleted] {
            delete going;
            deleted.set_value();
        });
        const bool inTime = done.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        if (!inTime) {
            WriteFile(tmp.Sub("wake"), "");
            for (const std::string& name : tarnis_test::ListDir(tmp.path())) WriteFile(tmp.Sub(name + "/wake"), "");
        }
        deleter.join();
        return inTime;
    }

    platform::LogCapture capture;
    TempDir tmp;
    Recorder recorder;
    RecordingListener* listener = nullptr;
};

}  // namespace

TEST_F(FileEventListenerTest, NamesTheFileOnlyForEventsInsideAWatchedDirectory) {
    const std::string file = tmp.Sub("watched.txt");
    const std::string dir = tmp.Sub("dir");
    ASSERT_TRUE(WriteFile(file, "a"));
    MakeDirs({dir});
    listener = new RecordingListener(&recorder, {}, IN_MODIFY | IN_CREATE, {file, dir});

    ASSERT_TRUE(WriteFile(file, "changed"));
    ASSERT_TRUE(recorder.WaitFor(file, std::nullopt));
    ASSERT_TRUE(WriteFile(dir + "/inside.log", ""));
    ASSERT_TRUE(recorder.WaitFor(dir, std::string("inside.log")));
    for (const Event& event : recorder.Events()) {
        EXPECT_EQ(event.mask, static_cast<uint32_t>(event.path == file ? IN_MODIFY : IN_CREATE)) << event.path;
        EXPECT_EQ(event.name.has_value(), event.path == dir) << event.path;
    }
}

TEST_F(FileEventListenerTest, APathWatchedTwiceKeepsItsFirstWatchAndAnUnwatchableOneIsLogged) {
    const std::string missing = tmp.Sub("missing");
    const std::string enoent = "error: No such file or directory";
    listener = new RecordingListener(&recorder, {missing, tmp.path()}, IN_CREATE);
    EXPECT_TRUE(capture.HasLine("[FileEventListener] add file watch failed! path: " + missing + ", " + enoent, kTag,
                                ANDROID_LOG_ERROR));
    EXPECT_TRUE(capture.HasLine("[addWatching] addWatching for " + missing + " failed! " + enoent, kTag,
                                ANDROID_LOG_ERROR));
    EXPECT_FALSE(listener->removeWatching(missing));

    // Had it reached the kernel, its mask would replace the first one's.
    EXPECT_NE(listener->addWatching(tmp.path(), IN_DELETE), 0);
    EXPECT_TRUE(capture.HasLine("[addWatching] addWatching for " + tmp.path() + " failed! error: Already Watched",
                                kTag, ANDROID_LOG_INFO));
    ASSERT_TRUE(WriteFile(tmp.Sub("created"), ""));
    EXPECT_TRUE(recorder.WaitFor(tmp.path(), std::string("created")));

    EXPECT_TRUE(listener->removeWatching(tmp.path()));
    EXPECT_FALSE(listener->removeWatching(tmp.path()));
    // Another spelling shares the descriptor, which outlives the first one's removal.
    const std::string slashed = tmp.path() + "/";
    EXPECT_EQ(listener->addWatching(tmp.path(), IN_CREATE), 0);
    EXPECT_EQ(listener->addWatching(slashed, IN_CREATE), 0);
    EXPECT_TRUE(listener->removeWatching(tmp.path()));
    ASSERT_TRUE(WriteFile(tmp.Sub("again"), ""));
    EXPECT_TRUE(recorder.WaitFor(slashed, std::string("again")));
}

TEST_F(FileEventListenerTest, AWatchNeverFollowsALinkSwappedInForItsDirectory) {
    MakeDirs({tmp.Sub("outside"), tmp.Sub("logs")});
    ASSERT_EQ(symlink(tmp.Sub("outside").c_str(), tmp.Sub("link").c_str()), 0);
    listener = new RecordingListener(&recorder, {}, IN_CREATE);
    EXPECT_NE(listener->addWatching(tmp.Sub("link"), IN_CREATE | IN_ONLYDIR), 0);

    // Checked and opened, then swapped for the link: the watch still lands on the directory that was checked.
    const int fd = open(tmp.Sub("logs").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(rename(tmp.Sub("logs").c_str(), tmp.Sub("moved").c_str()), 0);
    ASSERT_EQ(rename(tmp.Sub("link").c_str(), tmp.Sub("logs").c_str()), 0);
    EXPECT_EQ(listener->addWatching(tmp.Sub("logs"), fd, IN_CREATE), 0);
    close(fd);
    ASSERT_TRUE(WriteFile(tmp.Sub("outside/planted"), ""));
    ASSERT_TRUE(WriteFile(tmp.Sub("moved/ours"), ""));
    ASSERT_TRUE(recorder.WaitFor(tmp.Sub("logs"), std::string("ours")));
    for (const Event& event : recorder.Events()) EXPECT_NE(event.name, std::string("planted"));
}

TEST_F(FileEventListenerTest, EventsOfAWatchRemovedWhileQueuedAreDroppedWithAWarning) {
    const std::string kept = tmp.Sub("kept");
    const std::string dropped = tmp.Sub("dropped");
    MakeDirs({kept, dropped});
    std::promise<void> release;
    std::future<void> held = recorder.HoldFirst(release.get_future().share());
    listener = new RecordingListener(&recorder, {}, IN_CREATE, {kept, dropped});

    ASSERT_TRUE(WriteFile(kept + "/first", ""));
    ASSERT_EQ(held.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    ASSERT_TRUE(WriteFile(dropped + "/x", ""));
    ASSERT_TRUE(WriteFile(dropped + "/y", ""));
    EXPECT_TRUE(listener->removeWatching(dropped));
    ASSERT_TRUE(WriteFile(kept + "/last", ""));
    release.set_value();
    // Kernel order: by the time "last" arrives the others were read.
    ASSERT_TRUE(recorder.WaitFor(kept, std::string("last")));
    for (const Event& event : recorder.Events()) EXPECT_EQ(event.path, kept);
    // Two creations and the kernel's notice that the watch went.
    const std::vector<long> wds = tarnis_test::NumbersInLines(
        capture, "[listenLoop] wd ", " is not in our watching list, remove watching!", kTag, ANDROID_LOG_WARN);
    ASSERT_EQ(wds.size(), 3u);
    EXPECT_GT(wds[0], 0);
    EXPECT_EQ(wds, std::vector<long>(3, wds[0]));
}

// Then the loop waits, and deleting the listener ends that wait.
TEST_F(FileEventListenerTest, ManyEventsOfMixedLengthsArriveInOrderOverSeveralReads) {
    listener = new RecordingListener(&recorder, {}, IN_CREATE, {tmp.path()});
    // Names of 4 to 80 bytes: a read holds a varying number of events of 16 to 96 bytes.
    std::vector<std::string> names;
    for (int i = 0; i < 200; ++i) {
        names.push_back("f" + std::to_string(1000 + i) + std::string(i % 77, 'x'));
        ASSERT_TRUE(WriteFile(tmp.Sub(names.back()), ""));
    }
    ASSERT_TRUE(recorder.WaitFor(tmp.path(), names.back()));
    const std::vector<Event> events = recorder.Events();
    ASSERT_EQ(events.size(), names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(events[i].name, names[i]) << i;
        EXPECT_EQ(events[i].path, tmp.path());
    }
    ASSERT_TRUE(DeleteWithin(std::exchange(listener, nullptr)));
    EXPECT_TRUE(capture.HasLine("[~FileEventListener] Cleanup...", kTag, ANDROID_LOG_DEBUG));
}

// Right after construction the loop may not have started, or be about to wait; a stop from an event ends it.
TEST_F(FileEventListenerTest, DeletionRightAfterConstructionOrAfterAStopFromAnEventEndsTheLoop) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(DeleteWithin(new RecordingListener(&recorder, {tmp.path()}, IN_CREATE))) << i;
    }
    listener = new RecordingListener(&recorder, {}, IN_CREATE, {tmp.path()}, true);
    ASSERT_TRUE(WriteFile(tmp.Sub("a"), ""));
    ASSERT_TRUE(WriteFile(tmp.Sub("b"), ""));
    ASSERT_TRUE(recorder.WaitFor(tmp.path(), std::string("a")));
    EXPECT_TRUE(DeleteWithin(std::exchange(listener, nullptr)));
    EXPECT_EQ(recorder.Events().size(), 1u);
}

TEST_F(FileEventListenerTest, AListenerWithoutInotifyRefusesWatchesAndStillCleansUp) {
#if defined(__SANITIZE_ADDRESS__)
    // UBSan (built with ASan here) needs a pipe of its own; without one it reports valid objects as typeless.
    GTEST_SKIP() << "skipped: the sanitizer runtime needs descriptors of its own";
#endif
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 256);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    // Every descriptor taken, so that inotify_init1 fails with EMFILE.
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) taken.push_back(fd);
    listener = new RecordingListener(&recorder, {tmp.path()}, IN_CREATE);
    const int added = listener->addWatching(tmp.path(), IN_CREATE);
    for (int fd : taken) close(fd);
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_TRUE(capture.HasLine("[FileEventListener] init new inotify fd failed!, error: Too many open files", kTag,
                                ANDROID_LOG_ERROR));
    EXPECT_NE(added, 0);
    EXPECT_FALSE(listener->removeWatching(tmp.path()));
    ASSERT_TRUE(WriteFile(tmp.Sub("unseen"), ""));
    ASSERT_TRUE(DeleteWithin(std::exchange(listener, nullptr)));
    EXPECT_TRUE(capture.HasLine("[~FileEventListener] Cleanup Done!", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(recorder.Events().empty());
}
