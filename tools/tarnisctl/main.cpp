#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <host/Host.h>
#include <log/log.h>

#include "tarnis_generated/TarnisVersion.h"
#include "tools/tarnisctl/CtlCommand.h"

namespace tarnisctl {
namespace {

// Longer than the daemon's own limit for a dump (10 s), so that its account
// of a dump that could not be delivered reaches the user first.
constexpr int kDefaultTimeoutS = 30;

int gRequestedTimeoutMs = 0;
char* const* gCommandLine = nullptr;

std::vector<CtlCommand>& MutableCommands() {
    static auto* commands = new std::vector<CtlCommand>;
    return *commands;
}

void PrintUsage(FILE* out) {
    fprintf(out, "usage: tarnisctl [--root DIR] [--timeout SECONDS] COMMAND [ARGS...]\n");
    fprintf(out, "       tarnisctl --version\n\n");
    fprintf(out, "Talks to a running tarnisd (and to the property store) below DIR\n");
    fprintf(out, "(default: $TARNIS_ROOT, else /). A call that gets no answer within\n");
    fprintf(out, "SECONDS (default %d) fails with a message instead of waiting.\n\ncommands:\n",
            kDefaultTimeoutS);
    for (const CtlCommand& command : Commands()) {
        fprintf(out, "  %s %s\n      %s\n", command.name.c_str(), command.usage.c_str(),
                command.summary.c_str());
    }
    fprintf(out, "\nExit status: 0 done, 1 refused or failed, 2 usage error.\n");
}

}  // namespace

const std::vector<CtlCommand>& Commands() { return MutableCommands(); }

char* const* CommandLine() { return gCommandLine; }

CtlCommandRegister::CtlCommandRegister(CtlCommand command) {
    MutableCommands().push_back(std::move(command));
}

int UsageError(const std::string& message) {
    fprintf(stderr, "tarnisctl: %s\n", message.c_str());
    PrintUsage(stderr);
    return 2;
}

int RequestedTimeoutMs() { return gRequestedTimeoutMs; }

void RaiseDefaultTimeoutMs(int ms) {
    if (gRequestedTimeoutMs == 0 && ms > kDefaultTimeoutS * 1000) platform::host::SetBinderCallTimeoutMs(ms);
}

}  // namespace tarnisctl

int main(int argc, char** argv) {
    using namespace tarnisctl;
    gCommandLine = argv;
    // The tool's own log lines are for diagnosing it (TARNIS_LOG_LEVEL shows
    // them); its user gets one sentence per failure instead.
    if (getenv("TARNIS_LOG_LEVEL") == nullptr) platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
    platform::host::SetBinderCallTimeoutMs(kDefaultTimeoutS * 1000);
    int i = 1;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            return 0;
        } else if (arg == "--version") {
            printf("tarnisctl %s (%s)\n", TARNIS_VERSION, TARNIS_REVISION);
            return 0;
        } else if (arg == "--root") {
            if (i + 1 >= argc) return UsageError("--root needs a directory");
            platform::SetRoot(argv[++i]);
        } else if (arg.compare(0, 7, "--root=") == 0) {
            platform::SetRoot(arg.substr(7));
        } else if (arg == "--timeout" || arg.compare(0, 10, "--timeout=") == 0) {
            std::string value;
            if (arg == "--timeout") {
                if (i + 1 >= argc) return UsageError("--timeout needs a number of seconds");
                value = argv[++i];
            } else {
                value = arg.substr(10);
            }
            char* end = nullptr;
            errno = 0;
            double seconds = strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || errno != 0 || !(seconds > 0) || seconds > 86400) {
                return UsageError("--timeout needs a number of seconds between 0 and 86400, not '" + value + "'");
            }
            gRequestedTimeoutMs = static_cast<int>(seconds * 1000);
            platform::host::SetBinderCallTimeoutMs(gRequestedTimeoutMs);
        } else if (!arg.empty() && arg[0] == '-') {
            return UsageError("unknown option " + arg);
        } else {
            break;
        }
    }
    if (i >= argc) return UsageError("no command given");
    const std::string name = argv[i];
    std::vector<std::string> args(argv + i + 1, argv + argc);
    for (const CtlCommand& command : Commands()) {
        if (command.name != name) continue;
        if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
            printf("usage: tarnisctl [--root DIR] %s %s\n    %s\n\nExit status: 0 done, 1 refused or failed, 2 usage "
                   "error.\n",
                   command.name.c_str(), command.usage.c_str(), command.summary.c_str());
            return 0;
        }
        return command.run(args);
    }
    return UsageError("unknown command " + name);
}
