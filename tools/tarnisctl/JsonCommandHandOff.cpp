// tarnisctl's entries for the commands that read JSON: each runs
// tarnisctl-json from tarnisctl's own directory with the same command line.
// jsoncpp would bring the C++ runtime's shared library into every start of
// tarnisctl (half its start-up time); the few commands that need it pay for
// one more exec instead.
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/JsonCommandNames.h"

namespace tarnisctl {
namespace {

// tarnisctl-json beside the running tool, wherever it was started from.
std::string JsonToolPath() {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return kJsonTool;
    std::string path(self, static_cast<size_t>(length));
    const size_t slash = path.find_last_of('/');
    return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + kJsonTool;
}

int HandOff(const char* command) {
    const std::string tool = JsonToolPath();
    std::vector<char*> argv;
    for (char* const* arg = CommandLine(); *arg != nullptr; ++arg) argv.push_back(*arg);
    argv[0] = const_cast<char*>(tool.c_str());
    argv.push_back(nullptr);
    fflush(nullptr);
    execv(tool.c_str(), argv.data());
    fprintf(stderr, "tarnisctl: %s is run by %s, which could not be started: %s\n", command, tool.c_str(),
            strerror(errno));
    return 1;
}

int Intent(const std::vector<std::string>&) { return HandOff(kIntentCommand); }
int Event(const std::vector<std::string>&) { return HandOff(kEventCommand); }

CtlCommandRegister gIntent({kIntentCommand, kIntentUsage, kIntentSummary, Intent});
CtlCommandRegister gEvent({kEventCommand, kEventUsage, kEventSummary, Event});

}  // namespace
}  // namespace tarnisctl
