#include "tests/support/ProcessCounts.h"

#include <dirent.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

namespace tarnis_test {
namespace {

size_t CountEntries(const std::string& dir) {
    size_t count = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') ++count;
        }
        closedir(d);
    }
    return count;
}

}  // namespace

std::string ProcessCounts::ToString() const {
    return std::to_string(fds) + " descriptors, " + std::to_string(threads) + " threads";
}

ProcessCounts ProcessCounts::Of(pid_t pid) {
    const std::string proc = pid == 0 ? "/proc/self" : "/proc/" + std::to_string(pid);
    ProcessCounts counts;
    // opendir itself holds one descriptor while counting.
    counts.fds = CountEntries(proc + "/fd") - (pid == 0 ? 1 : 0);
    counts.threads = CountEntries(proc + "/task");
    return counts;
}

bool ProcessCounts::Await(const ProcessCounts& expected, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!Of().NoMoreThan(expected)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

long CpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    // The command name may hold spaces: fields are counted after its ")".
    size_t close = line.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) utime = std::stol(field);
        if (i == 15) {
            stime = std::stol(field);
            break;
        }
    }
    return utime + stime;
}

}  // namespace tarnis_test
