#pragma once

#include <string>
#include <vector>

namespace velmar {
namespace kolto {
namespace KernelTrack {

// One group of kernel statistics: the event it is reported as, where the
// kernel keeps it (device paths) and the fields the event carries.
struct KernelStatsTable {
    std::string eventName;
    const char* statsFile;
    const char* resetNode;
    std::vector<std::string> fields;
};

// The six groups, in report order, and the daily report over them.
class KernelStatsTrack {
public:
    static const std::vector<KernelStatsTable>& tables();
    // Reports every group; a group is reset in the kernel only when its
    // event was sent, so an unreported day carries over to the next report.
    static void kernelStatsReport() { kernelStatsReport(true); }
    // The same, leaving every counter as it is when `resetCounters` is false.
    static void kernelStatsReport(bool resetCounters);
};

}  // namespace KernelTrack
}  // namespace kolto
}  // namespace velmar
