#pragma once

#include <string>

// The host stand-in for init's service control. Setting "ctl.start" or
// "ctl.stop" to a service name starts or stops that service, but only when
// the sandbox declares a host command for it:
//
//   <root>/system/etc/init/host/<name>
//
// a shell script run as `/bin/sh <that file>` in a session of its own, with
// TARNIS_ROOT set to the root and standard input from /dev/null. Its pid is
// kept in <root>/dev/__services__/<name>.pid. As init does, the property
// "init.svc.<name>" becomes "running" once started and "stopped" once
// stopped (SIGTERM to the service's process group, SIGKILL after two
// seconds). A service that ends on its own stays "running" until a
// ctl.stop. Names without a declared command are logged and ignored.
namespace platform {

// Acts on a control property that has just been stored.
void HandleControlProperty(const std::string& key, const std::string& value);

// Where the host command of service `name` is declared.
std::string HostServiceCommandPath(const std::string& name);

}  // namespace platform
