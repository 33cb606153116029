#pragma once

#include <string>
#include <vector>

namespace android {

// One step of a capture-server capture: an optional title written before the
// step, the command (program and arguments) and its time-out in seconds.
struct DumpAction {
    std::string title;
    std::vector<std::string> command;
    int timeout = 0;
};

}  // namespace android
