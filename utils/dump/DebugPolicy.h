#pragma once

// Writes the debug-policy images that a client downloaded into their
// partitions.
namespace android {

class DebugPolicy {
public:
    // Mode 1 flashes the unsigned images, any other mode the signed ones.
    // Every step runs even when an earlier one failed; the outcome is only
    // logged.
    static void Flash(int mode);
};

}  // namespace android
