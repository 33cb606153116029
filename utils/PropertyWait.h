#pragma once

#include <atomic>
#include <string>

namespace velmar {
namespace kolto {

// Waits without limit for property `key` to hold `value`, unless `stop` is
// set. A property wait blocks until the store changes, but it cannot be
// interrupted, so the stop flag is looked at between waits whose length
// doubles from half a second to eight: a wait that has just begun stops at
// once, and one that lasts all day costs a wake-up every eight seconds
// instead of a poll. False once stopped.
bool WaitForPropertyUnlessStopped(const std::string& key, const std::string& value, const std::atomic<bool>& stop);

}  // namespace kolto
}  // namespace velmar
