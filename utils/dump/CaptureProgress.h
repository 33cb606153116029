#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>

#include <android-base/unique_fd.h>

#include "utils/CaptureLayout.h"

namespace android {

// Publishes how far the capture running on this thread has come, for the
// client that ordered it to follow (`tarnisctl capture -p` reads it): one
// small file per client below the progress directory, replaced whole at each
// change. Captures run on their caller's thread from start to end, so the
// thread carries the publication and the capture code needs no handle.
class CaptureProgress {
public:
    // Publishes for `client` what captures run on this thread while this
    // object lives; nothing for a client of 0 or less. Removes first the
    // files of clients that have gone.
    explicit CaptureProgress(pid_t client);
    ~CaptureProgress();
    CaptureProgress(const CaptureProgress&) = delete;
    CaptureProgress& operator=(const CaptureProgress&) = delete;

    // The archive the capture goes to (a device path), once known.
    static void Archive(const std::string& deviceArchive);
    // `done` of `total` sections are in the capture.
    static void Sections(size_t done, size_t total);

private:
    void Publish();

    pid_t client_;
    base::unique_fd dir_;
    velmar::kolto::capture_layout::Progress progress_;
    velmar::kolto::capture_layout::Progress shown_;  // what the file says
    bool failed_ = false;
    std::chrono::steady_clock::time_point published_;
    CaptureProgress* outer_;
};

}  // namespace android
