#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace velmar {
namespace kolto {
namespace F2fsTrack {

// The kernel's daily I/O latency statistics of one file system or host.
struct IoLatencyData {
    // Requests of one size class. The label is kept as the kernel writes it
    // (it becomes part of the event keys); its number is the class's upper
    // size in KiB, and a label ending in "+" is the open-ended last class.
    struct SizeBucket {
        std::string label;
        uint64_t sum = 0;
        uint64_t count = 0;
        uint64_t peak = 0;
        uint64_t threshold = 0;
    };
    // Requests whose latency fell in one range (ms).
    struct TimeRangeBucket {
        std::string label;
        uint64_t sum = 0;
        uint64_t count = 0;
        uint64_t peak = 0;
    };
    // One direction.
    struct FsLatency {
        std::vector<SizeBucket> normal;
        std::vector<SizeBucket> abnormal;
        std::vector<TimeRangeBucket> delay;
    };
    struct FsLatencyRW {
        FsLatency read;
        FsLatency write;
    };
};

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
