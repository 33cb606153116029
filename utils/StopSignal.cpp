#include "utils/StopSignal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "utils/Clock.h"

namespace velmar {
namespace kolto {

StopSignal::StopSignal() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void StopSignal::Request() {
    {
        // Under the lock, so that a sleeper between its look at the flag and
        // its wait cannot miss the notification.
        std::lock_guard<std::mutex> guard(lock_);
        stop_.store(true);
    }
    cond_.notify_all();
    const uint64_t one = 1;
    if (fd_.ok()) (void)!write(fd_.get(), &one, sizeof(one));
}

bool StopSignal::Sleep(int64_t ms) {
    Clock& clock = GetClock();
    const int64_t deadline = clock.SteadyNowMs() + ms;
    std::unique_lock<std::mutex> lock(lock_);
    while (!stop_.load()) {
        if (clock.WaitUntilMs(cond_, lock, deadline)) return true;
    }
    return false;
}

}  // namespace kolto
}  // namespace velmar
