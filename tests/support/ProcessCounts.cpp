#include "tests/support/ProcessCounts.h"

#include <filesystem>
#include <iterator>
#include <sstream>

#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

namespace tarnis_test {
namespace {

size_t CountEntries(const std::string& dir) {
    std::error_code error;
    std::filesystem::directory_iterator entries(dir, error);
    return error ? 0 : std::distance(entries, std::filesystem::directory_iterator());
}

}  // namespace

std::string ProcessCounts::ToString() const {
    return std::to_string(fds) + " descriptors, " + std::to_string(threads) + " threads";
}

ProcessCounts ProcessCounts::Of(pid_t pid) {
    const std::string proc = pid == 0 ? "/proc/self" : "/proc/" + std::to_string(pid);
    ProcessCounts counts;
    // Counting holds one descriptor of its own.
    counts.fds = CountEntries(proc + "/fd") - (pid == 0 ? 1 : 0);
    counts.threads = CountEntries(proc + "/task");
    return counts;
}

bool ProcessCounts::Await(const ProcessCounts& expected, int timeoutMs) {
    return WaitFor([&] {
        const ProcessCounts now = Of();
        return now.fds <= expected.fds && now.threads <= expected.threads;
    }, std::chrono::milliseconds(timeoutMs));
}

long CpuTicks(pid_t pid) {
    // The command name may hold spaces: fields are counted after its ")".
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    if (stat.rfind(')') == std::string::npos) return -1;
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field) fields >> skipped;
    long utime = 0, stime = 0;
    fields >> utime >> stime;
    return utime + stime;
}

}  // namespace tarnis_test
