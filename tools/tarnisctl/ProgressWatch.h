#pragma once

#include <time.h>

#include <cstddef>
#include <functional>
#include <string>

namespace tarnisctl {

// Follows the progress tarnisd publishes for the capture this process
// ordered. With -p it prints the lines of the platform's bug-report protocol
// on standard output, as they happen:
//   BEGIN:<archive>  once the daemon knows where the capture goes
//   PROGRESS:<done>/<total>  each time another section is in
//   OK:<archive>  or  FAIL:<message>  at the end
// Without -p, on a terminal, a one-line bar on standard error instead.
class ProgressWatch {
public:
    enum class Mode { kQuiet, kProtocol, kBar };
    // The protocol when asked for; else a bar when standard error is a terminal.
    static Mode Choose(bool protocol);

    // With `json`, the archive goes out as {"archive": PATH}.
    explicit ProgressWatch(Mode mode, bool json = false);

    // Runs `work` (which returns the command's status) on a thread of its
    // own and follows the capture until it returns.
    int Follow(const std::function<int()>& work);
    // Reads what the daemon published and prints what changed.
    void Poll();
    // The end: OK with the archive, or the failure's sentence (with -p as a
    // FAIL line on standard output, else on standard error). Both return the
    // exit status.
    int Ok(const std::string& archive);
    int Fail(const std::string& message);
    bool protocol() const { return mode_ == Mode::kProtocol; }

private:
    void ClearBar();

    Mode mode_;
    bool json_;
    struct timespec start_;
    bool begun_ = false;
    size_t done_ = 0;
    size_t total_ = 0;
    bool barShown_ = false;
};

}  // namespace tarnisctl
