#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace android {

// The sections of one capture (one tool each, mostly) side by side: each
// writes into a buffer of its own, and the buffers are appended to the
// capture in the order the sections were added, so that the text reads the
// same as when they run one after another. Sections that must see an
// earlier one's result are not sections: they run before or after Run().
class SectionPool {
public:
    // Writes one section's output into `fd`, open for appending. It runs on
    // a worker thread, or on the caller's when the pool runs one at a time.
    using Section = std::function<void(int fd)>;

    // `outFd`: the capture, open for appending. `bufferDirFd`: a directory
    // for the buffers, made there as unnamed files (the capture's own, so a
    // tool's large output lands where the capture goes, not in memory); -1
    // for memory.
    SectionPool(int outFd, int bufferDirFd);

    void Add(Section section);
    size_t size() const { return sections_.size(); }

    // Runs every section and appends each one's output to the capture, in
    // order, as soon as those before it are in. Returns when all are in.
    // `onSection`, when given, hears (done, total) after each is appended,
    // and again every few milliseconds while the next one is awaited.
    void Run(const std::function<void(size_t done, size_t total)>& onSection = nullptr);

    // How many sections run at once: twice the cores this process may run
    // on (tools wait on I/O as often as they compute), and one on a single
    // core, where running them together gains nothing.
    static size_t Workers();
    // 0 goes back to the machine's figure.
    static void SetWorkersForTesting(size_t workers);

private:
    void RunInOrder(const std::function<void(size_t, size_t)>& onSection);

    int outFd_;
    int bufferDirFd_;
    std::vector<Section> sections_;
};

}  // namespace android
