#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "utils/dump/DumpAction.h"

namespace android {

// Serves quick captures to early-boot and recovery components that cannot
// use binder: one request per connection on init's control socket "dorvad"
// (a 4-byte header whose last byte is the length, then the failure's name),
// answered with "finish" once the capture is written and packed.
//
// A request names a directory below the capture base, so only a plain name
// is taken: anything that could climb out of the base, or that is not
// printable text, is refused (the client still gets its answer). A client
// cannot hold the server: reads of a request give up after a time-out, and
// the answer is never waited for.
class CaptureServerThread {
public:
    static constexpr char kKoltoInstance[] = "vendor.velmar.hardware.kolto.common.IKoltoImpl/default";

    // Makes the capture base and copies the secure world's log through the
    // vendor HAL when it runs. `stopFd` (-1: none) ends threadLoop and any
    // read of a request once it becomes readable (an eventfd).
    explicit CaptureServerThread(int stopFd = -1);

    // Serves the socket until it fails or `stopFd` fires; returns 0.
    int threadLoop();
    // One capture for `request`.
    void runCaptureLog(const char* request);

    // The capture steps for the current properties.
    std::vector<DumpAction> CaptureSteps() const;
    const std::string& baseDir() const { return baseDir_; }

    // A request as the client frames it: a 4-byte header whose last byte is
    // the length n of the name (the other three bytes are ignored), then the
    // n bytes of the name, unterminated.
    enum class RequestStatus { kIncomplete, kRefused, kAccepted };
    static constexpr size_t kRequestHeaderBytes = 4;
    static constexpr size_t kMaxRequestBytes = kRequestHeaderBytes + 255;
    // Reads the request in the first `size` bytes of `data`. `needed` gets
    // the bytes the whole request takes (the header's while `size` is short
    // of it). kIncomplete while `size` is short of `needed`; otherwise
    // `request` gets the name, kAccepted when it is a plain one (it names a
    // directory one level below the base and reads as text), else kRefused.
    static RequestStatus ParseRequest(const unsigned char* data, size_t size, size_t* needed, std::string* request);

    // How long a client may take to send its request (10 s unless set).
    static void SetIoTimeoutMsForTesting(int ms);

private:
    void FetchSecurityLog();
    void Serve(int connection);
    // Reads exactly `size` bytes within the time-out; false with errno set.
    bool ReadRequestBytes(int connection, char* out, size_t size);

    std::string baseDir_;
    bool abUpdate_ = false;
    std::string zelteeCopyPath_;
    int stopFd_;
};

}  // namespace android
