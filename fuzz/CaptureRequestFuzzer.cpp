// Feeds arbitrary bytes to the reader of the capture socket's requests, as a
// client would send them. It must never crash or read past what it was
// given. Only the header's last byte sets the length; the bytes after the
// announced name are not part of the request; reading the header first and
// the rest later (as the server does) gives the same request as reading it
// whole; and only a plain name is accepted: one that names a single
// directory below the capture base and holds no control characters.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "modules/CaptureServer/CaptureServerThread.h"

namespace {

using Server = android::CaptureServerThread;
using Status = Server::RequestStatus;

bool Plain(const std::string& name) {
    if (name.empty() || name == "." || name == "..") return false;
    for (unsigned char c : name) {
        if (c == '/' || c < 0x20 || c == 0x7f) return false;
    }
    return true;
}

// A copy of exactly `size` bytes on the heap, so that the sanitizer sees any
// read past the end of what the client sent.
Status Parse(const uint8_t* data, size_t size, size_t* needed, std::string* request) {
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size == 0 ? 1 : size]);
    if (size > 0) memcpy(copy.get(), data, size);
    return Server::ParseRequest(copy.get(), size, needed, request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();

    size_t needed = 0;
    std::string request = "left over";
    const Status status = Parse(data, size, &needed, &request);
    if (size < Server::kRequestHeaderBytes) {
        if (status != Status::kIncomplete || needed != Server::kRequestHeaderBytes || !request.empty()) abort();
        return 0;
    }
    if (needed != Server::kRequestHeaderBytes + data[3] || needed > Server::kMaxRequestBytes) abort();
    if (size < needed) {
        if (status != Status::kIncomplete || !request.empty()) abort();
        return 0;
    }
    const std::string name(reinterpret_cast<const char*>(data) + Server::kRequestHeaderBytes,
                           needed - Server::kRequestHeaderBytes);
    if (request != name) abort();
    if ((status == Status::kAccepted) != Plain(name)) abort();
    if (status == Status::kIncomplete) abort();

    // The server's way: the header, then the whole request once it is in.
    size_t first = 0;
    std::string part;
    const Status header = Parse(data, Server::kRequestHeaderBytes, &first, &part);
    if (first != needed) abort();
    if (header != (needed == Server::kRequestHeaderBytes ? status : Status::kIncomplete)) abort();
    size_t again = 0;
    std::string whole;
    if (Parse(data, needed, &again, &whole) != status || again != needed || whole != request) abort();
    return 0;
}
