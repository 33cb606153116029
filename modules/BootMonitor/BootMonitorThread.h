#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

namespace android {

// Supervises one boot: consumes the mode markers recovery left, counts boots
// that never complete, captures light bug reports while the boot is slow,
// reboots after 20 minutes without completion and sends the device to
// recovery after five such boots in a row. Every wait goes through the
// injectable clock.
class BootMonitorThread {
public:
    // WaitForProperty's shape: true once `key` holds `value` within `timeout`.
    using PropertyWaiter =
        std::function<bool(const std::string& key, const std::string& value, std::chrono::milliseconds timeout)>;

    BootMonitorThread();

    // The whole supervision; returns 0 in every case. In trap mode it runs
    // until the next reboot (or Stop()).
    int threadLoop();
    void captureBugreport(std::string& directory, int mode, long long value);

    // Ends the trap-mode capture loop after its current round.
    void Stop() { stop_.store(true); }
    // Replaces the property waits of the supervision (tests drive them with
    // the test clock instead of waiting 10 s of real time per pass).
    void SetPropertyWaiterForTesting(PropertyWaiter waiter) { waitForProperty_ = std::move(waiter); }

    // The command recovery finds in the boot control block.
    static constexpr char kRecoveryCommand[] = "BootFailure\n--reason=BootMonitor";

private:
    bool BootCompleted();
    void TrapLoop(std::string& directory, int intervalSeconds);
    // Hands `command` to the uncrypt service; true when it confirmed.
    bool SetupBcb(const std::string& command);

    PropertyWaiter waitForProperty_;
    std::atomic<bool> stop_{false};
};

}  // namespace android
