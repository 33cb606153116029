#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/TempDir.h"

// The daemon and its tool as real processes of the build, on a test's root.
namespace tarnis_test {

// "tarnisd --root ROOT" and "tarnisctl --root ROOT" as shell command prefixes.
std::string DaemonCommand(const TempDir& root);
std::string Ctl(const TempDir& root);
// Starts tarnisd in the background, its standard output and error going to
// the files named ("/dev/null" drops them).
pid_t StartDaemon(const TempDir& root, const std::string& out = "/dev/null", const std::string& err = "/dev/null");
// True once the daemon answers a dump; false after about ten seconds.
bool WaitServing(const TempDir& root);
// SIGTERM, then reaps it.
void StopDaemon(pid_t daemon);

}  // namespace tarnis_test
