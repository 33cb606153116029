#include "utils/PropertyWait.h"

#include <algorithm>
#include <chrono>

#include <android-base/properties.h>
#include <host/WaitForProperty.h>

namespace velmar {
namespace kolto {

bool WaitForPropertyUnlessStopped(const std::string& key, const std::string& value, const std::atomic<bool>& stop) {
    constexpr std::chrono::milliseconds kFirst(500);
    constexpr std::chrono::milliseconds kLongest(8000);
    std::chrono::milliseconds slice = kFirst;
    while (!stop.load()) {
        if (android::base::WaitForProperty(key, value, slice)) return !stop.load();
        slice = std::min(slice * 2, kLongest);
    }
    return false;
}

}  // namespace kolto
}  // namespace velmar
