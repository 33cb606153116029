#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "utils/StopSignal.h"
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

    // What became of the connections, for the module's dump; read from any thread.
    struct Tally {
        std::atomic<uint64_t> served{0};   // captured and answered
        std::atomic<uint64_t> refused{0};  // answered without a capture: not a plain name
        std::atomic<uint64_t> dropped{0};  // no whole request in time, the client gone, or a stop
    };

    // Makes the capture base and copies the secure world's log through the
    // vendor HAL when it runs. `stop` (its worker's) ends threadLoop and any
    // read of a request; `tally` counts the connections.
    CaptureServerThread(velmar::kolto::StopSignal& stop, Tally& tally);
    // With a stop and a tally of its own, for a server no worker runs.
    CaptureServerThread();

    // Serves the socket until it fails or the stop comes; returns 0.
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
    CaptureServerThread(velmar::kolto::StopSignal* stop, Tally* tally);
    void FetchSecurityLog();
    void Serve(int connection);
    // Reads exactly `size` bytes within the time-out; false with errno set.
    bool ReadRequestBytes(int connection, char* out, size_t size);

    std::string baseDir_;
    bool abUpdate_ = false;
    std::string zelteeCopyPath_;
    // Declared before the references that may name them.
    std::unique_ptr<velmar::kolto::StopSignal> ownStop_;
    Tally ownTally_;
    velmar::kolto::StopSignal& stop_;
    Tally& tally_;
};

}  // namespace android
