#pragma once

#include <string>
#include <vector>

// tarnisctl's sub-commands. Each source file of the tool registers its own
// commands with a static CtlCommandRegister, so adding one touches no table.
namespace tarnisctl {

struct CtlCommand {
    std::string name;
    std::string usage;    // the arguments, as shown in the usage text
    std::string summary;  // one line
    // Gets the arguments after the command name; returns the exit status.
    int (*run)(const std::vector<std::string>& args);
};

const std::vector<CtlCommand>& Commands();

struct CtlCommandRegister {
    explicit CtlCommandRegister(CtlCommand command);
};

// Prints "tarnisctl: <message>" and the usage to standard error; returns 2.
int UsageError(const std::string& message);

}  // namespace tarnisctl
