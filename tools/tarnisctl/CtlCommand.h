#pragma once

#include <string>
#include <vector>

#include <android/binder_auto_utils.h>

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

// The tool's whole command line as main received it (null-terminated).
char* const* CommandLine();

// Prints "tarnisctl: <message>" and the usage to standard error; returns 2.
int UsageError(const std::string& message);

// 0 for a call that succeeded. Otherwise prints what went wrong on standard
// error and returns 1: a refusal (service-specific error) by its message
// alone, a transport failure as a sentence, other exceptions as "WHAT: ...".
int Report(const char* what, const ndk::ScopedAStatus& status);
inline int Report(const char* what, const android::binder::Status& status) {
    return Report(what, ndk::ScopedAStatus(status));
}
// What Report prints, "" for a call that succeeded.
std::string Describe(const char* what, const ndk::ScopedAStatus& status);
inline std::string Describe(const char* what, const android::binder::Status& status) {
    return Describe(what, ndk::ScopedAStatus(status));
}
// A failed transport status as a sentence.
std::string Explain(binder_status_t status);

// The call time-out given with --timeout in milliseconds, 0 when none was
// given; and the one in force. Commands whose calls run long on the daemon's
// side (captures, tools with their own time-outs) raise the default for
// themselves, but never over a time-out the user chose.
int RequestedTimeoutMs();
void RaiseDefaultTimeoutMs(int ms);

}  // namespace tarnisctl
