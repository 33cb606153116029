#pragma once

#include <string>
#include <vector>

#include "utils/dump/DumpData.h"

namespace android {

// The ANR traces a capture-server capture attaches: those of the running
// build, newest first, at most ten, and only while the system server's
// watchdog stamp says it restarted within the last three hours. Each trace
// stays open from the moment it was chosen until this object goes.
class AnrTraces {
public:
    AnrTraces() = default;

    // Looks through the ANR directory (once).
    void Collect();
    const std::vector<DumpData>& traces() const { return traces_; }

private:
    std::vector<DumpData> traces_;
};

}  // namespace android
