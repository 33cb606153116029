#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "utils/StopSignal.h"

namespace android {

// Supervises one boot: consumes the mode markers recovery left, counts boots
// that never complete, captures light bug reports while the boot is slow,
// reboots after 20 minutes without completion and sends the device to
// recovery after five such boots in a row. Every wait goes through the
// injectable clock and ends on the stop signal.
class BootMonitorThread {
public:
    // WaitForProperty's shape: true once `key` holds `value` within `timeout`.
    using PropertyWaiter =
        std::function<bool(const std::string& key, const std::string& value, std::chrono::milliseconds timeout)>;

    // Stopped through Stop() alone: a signal of its own.
    BootMonitorThread();
    // Stopped by whoever owns `stop` (the module's worker), or by Stop().
    explicit BootMonitorThread(velmar::kolto::StopSignal& stop);
    BootMonitorThread(const BootMonitorThread&) = delete;
    BootMonitorThread& operator=(const BootMonitorThread&) = delete;

    // The whole supervision; returns 0 in every case. In trap mode it runs
    // until the next reboot (or a stop). A stop ends the wait for the boot
    // without a verdict on it; a reboot already decided on still happens.
    int threadLoop();
    void captureBugreport(std::string& directory, int mode, long long value);

    // Ends every wait of the supervision, the trap-mode loop with them.
    void Stop() { stop_.Request(); }
    // Replaces the property waits of the supervision (tests drive them with
    // the test clock instead of waiting 10 s of real time per pass).
    void SetPropertyWaiterForTesting(PropertyWaiter waiter) { waitForProperty_ = std::move(waiter); }
    // Where the supervision stands, a line each, for the module's dump; any thread.
    std::string Describe() const;

    // The command recovery finds in the boot control block.
    static constexpr char kRecoveryCommand[] = "BootFailure\n--reason=BootMonitor";

private:
    enum class Stage { kPreparing, kTrap, kDisabled, kWaiting, kCompleted, kBootLoop, kTimedOut, kStopped };

    // The property wait the supervision makes unless a test replaced it.
    bool WaitForProperty(const std::string& key, const std::string& value, std::chrono::milliseconds timeout);
    bool BootCompleted();
    void TrapLoop(std::string& directory, int intervalSeconds);
    // Hands `command` to the uncrypt service; true when it confirmed.
    bool SetupBcb(const std::string& command);
    // Sleeps `ms` on the process clock; false, and at once, when stopped.
    bool Pause(int64_t ms);

    std::unique_ptr<velmar::kolto::StopSignal> ownStop_;
    velmar::kolto::StopSignal& stop_;
    PropertyWaiter waitForProperty_ = [this](const std::string& key, const std::string& value,
                                             std::chrono::milliseconds timeout) {
        return WaitForProperty(key, value, timeout);
    };
    std::atomic<Stage> stage_{Stage::kPreparing};
    // The count this boot was noted with; -1 until it was read (or in trap mode).
    std::atomic<int> bootCount_{-1};
    std::atomic<int> captures_{0};
};

}  // namespace android
