#define LOG_TAG "dorvad"

#include "utils/dump/SectionPool.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include <android-base/unique_fd.h>
#include <log/log.h>

namespace android {
namespace {

constexpr size_t kMaxWorkers = 16;
constexpr size_t kCopyBytes = 64 * 1024;
constexpr std::chrono::milliseconds kReportEvery(10);

std::atomic<size_t> gWorkersForTesting{0};

// An unnamed file in `dirFd`, else in memory: gone with its last descriptor,
// so a capture that dies leaves no buffer behind.
base::unique_fd OpenBuffer(int dirFd) {
    if (dirFd >= 0) {
        base::unique_fd fd(openat(dirFd, ".", O_TMPFILE | O_RDWR | O_APPEND | O_CLOEXEC, 0600));
        if (fd.ok()) return fd;
    }
    base::unique_fd fd(memfd_create("capture-section", MFD_CLOEXEC));
    if (fd.ok()) fcntl(fd.get(), F_SETFL, O_APPEND);
    return fd;
}

// The capture is open for appending, which splice and copy_file_range
// refuse: copied through a buffer.
bool AppendBuffer(int from, int to) {
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kCopyBytes]);
    if (!chunk) return false;
    off_t offset = 0;
    for (;;) {
        const ssize_t got = TEMP_FAILURE_RETRY(pread(from, chunk.get(), kCopyBytes, offset));
        if (got < 0) return false;
        if (got == 0) return true;
        offset += got;
        for (ssize_t put = 0; put < got;) {
            const ssize_t n = TEMP_FAILURE_RETRY(write(to, chunk.get() + put, static_cast<size_t>(got - put)));
            if (n <= 0) return false;
            put += n;
        }
    }
}

// A section that throws (out of memory, say) loses its output, not the
// capture or the daemon.
void RunSection(const SectionPool::Section& section, int fd) {
    try {
        section(fd);
    } catch (const std::exception& e) {
        ALOGE("capture section failed: %s", e.what());
    } catch (...) {
        ALOGE("capture section failed");
    }
}

}  // namespace

SectionPool::SectionPool(int outFd, int bufferDirFd) : outFd_(outFd), bufferDirFd_(bufferDirFd) {}

void SectionPool::Add(Section section) { sections_.push_back(std::move(section)); }

size_t SectionPool::Workers() {
    const size_t forced = gWorkersForTesting.load(std::memory_order_relaxed);
    if (forced != 0) return forced;
    cpu_set_t set;
    CPU_ZERO(&set);
    const int cores = sched_getaffinity(0, sizeof(set), &set) == 0 ? CPU_COUNT(&set) : 1;
    return cores <= 1 ? 1 : std::min(kMaxWorkers, 2 * static_cast<size_t>(cores));
}

void SectionPool::SetWorkersForTesting(size_t workers) { gWorkersForTesting.store(workers); }

void SectionPool::RunInOrder(const std::function<void(size_t, size_t)>& onSection) {
    for (size_t i = 0; i < sections_.size(); ++i) {
        RunSection(sections_[i], outFd_);
        if (onSection) onSection(i + 1, sections_.size());
    }
}

void SectionPool::Run(const std::function<void(size_t done, size_t total)>& onSection) {
    const size_t total = sections_.size();
    const size_t workers = std::min(Workers(), total);
    if (workers <= 1) {
        RunInOrder(onSection);
        return;
    }

    struct Slot {
        base::unique_fd buffer;
        bool done = false;
    };
    std::vector<Slot> slots(total);
    std::mutex lock;
    std::condition_variable finished;
    size_t next = 0;
    const auto work = [&] {
        for (;;) {
            size_t index;
            {
                std::lock_guard<std::mutex> guard(lock);
                if (next == total) return;
                index = next++;
            }
            // Without a buffer the section waits for its turn and runs
            // straight into the capture.
            base::unique_fd buffer = OpenBuffer(bufferDirFd_);
            if (buffer.ok()) RunSection(sections_[index], buffer.get());
            {
                std::lock_guard<std::mutex> guard(lock);
                slots[index].buffer = std::move(buffer);
                slots[index].done = true;
            }
            finished.notify_all();
        }
    };
    std::vector<std::thread> threads;
    try {
        for (size_t k = 0; k < workers; ++k) threads.emplace_back(work);
    } catch (const std::system_error& e) {
        ALOGE("capture sections: no thread for a worker (%s), %zu run", e.what(), threads.size());
    }
    if (threads.empty()) {
        RunInOrder(onSection);
        return;
    }
    for (size_t i = 0; i < total; ++i) {
        base::unique_fd buffer;
        {
            std::unique_lock<std::mutex> guard(lock);
            // Each section ends within its own time-out; meanwhile the
            // listener hears again where the capture stands.
            while (!finished.wait_for(guard, kReportEvery, [&] { return slots[i].done; })) {
                if (!onSection) continue;
                guard.unlock();
                onSection(i, total);
                guard.lock();
            }
            buffer = std::move(slots[i].buffer);
        }
        if (!buffer.ok()) {
            RunSection(sections_[i], outFd_);
        } else if (!AppendBuffer(buffer.get(), outFd_)) {
            ALOGE("capture section %zu of %zu not appended: %s", i + 1, total, strerror(errno));
        }
        if (onSection) onSection(i + 1, total);
    }
    for (std::thread& thread : threads) thread.join();
}

}  // namespace android
