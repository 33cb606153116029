#include "tests/service/DaemonProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace tarnis_test {

std::string DaemonCommand(const TempDir& root) {
    return std::string(TARNIS_BUILD_DIR) + "/tarnisd --root " + root.path();
}

std::string Ctl(const TempDir& root) { return std::string(TARNIS_BUILD_DIR) + "/tarnisctl --root " + root.path(); }

pid_t StartDaemon(const TempDir& root, const std::string& out, const std::string& err) {
    pid_t daemon = fork();
    if (daemon == 0) {
        if (freopen(out.c_str(), "w", stdout) == nullptr || freopen(err.c_str(), "w", stderr) == nullptr) _exit(126);
        execl(std::string(TARNIS_BUILD_DIR).append("/tarnisd").c_str(), "tarnisd", "--root", root.path().c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    return daemon;
}

bool WaitServing(const TempDir& root) {
    int status = -1;
    for (int i = 0; i < 400; ++i) {
        RunShell(Ctl(root) + " dump ModuleManager dump >/dev/null 2>&1", &status);
        if (status == 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return false;
}

void StopDaemon(pid_t daemon) {
    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
}

}  // namespace tarnis_test
