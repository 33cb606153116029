#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/Root.h"
#include "tools/tarnisctl/CtlCommand.h"

namespace tarnisctl {
namespace {

std::vector<CtlCommand>& MutableCommands() {
    static auto* commands = new std::vector<CtlCommand>;
    return *commands;
}

void PrintUsage(FILE* out) {
    fprintf(out, "usage: tarnisctl [--root DIR] COMMAND [ARGS...]\n\n");
    fprintf(out, "Talks to a running tarnisd (and to the property store) below DIR\n");
    fprintf(out, "(default: $TARNIS_ROOT, else /).\n\ncommands:\n");
    for (const CtlCommand& command : Commands()) {
        fprintf(out, "  %s %s\n      %s\n", command.name.c_str(), command.usage.c_str(),
                command.summary.c_str());
    }
}

}  // namespace

const std::vector<CtlCommand>& Commands() { return MutableCommands(); }

CtlCommandRegister::CtlCommandRegister(CtlCommand command) {
    MutableCommands().push_back(std::move(command));
}

int UsageError(const std::string& message) {
    fprintf(stderr, "tarnisctl: %s\n", message.c_str());
    PrintUsage(stderr);
    return 2;
}

}  // namespace tarnisctl

int main(int argc, char** argv) {
    using namespace tarnisctl;
    // The tool's own log lines are for diagnosing it, not for its user.
    platform::SetStderrLogLevel(ANDROID_LOG_WARN);
    int i = 1;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            return 0;
        } else if (arg == "--root") {
            if (i + 1 >= argc) return UsageError("--root needs a directory");
            platform::SetRoot(argv[++i]);
        } else if (arg.compare(0, 7, "--root=") == 0) {
            platform::SetRoot(arg.substr(7));
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
            printf("usage: tarnisctl [--root DIR] %s %s\n    %s\n", command.name.c_str(),
                   command.usage.c_str(), command.summary.c_str());
            return 0;
        }
        return command.run(args);
    }
    return UsageError("unknown command " + name);
}
