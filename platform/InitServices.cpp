#include "platform/InitServices.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include <android-base/properties.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/seam/Dirs.h"

extern char** environ;

namespace platform {
namespace {

constexpr char kTag[] = "init";
constexpr int kStopWaitMs = 2000;

bool IsValidServiceName(const std::string& name) {
    if (name.empty() || name[0] == '.' || name.size() > 128) return false;
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '_' || c == '-' || c == '.' || c == '@';
        if (!ok) return false;
    }
    return true;
}

std::string PidFile(const std::string& name) { return DevicePath("/dev/__services__/" + name + ".pid"); }

pid_t ReadPid(const std::string& name) {
    std::ifstream in(PidFile(name));
    long pid = 0;
    if (!(in >> pid) || pid <= 1) return -1;
    return static_cast<pid_t>(pid);
}

// Alive and not a zombie waiting for a reaper that never comes.
bool IsAlive(pid_t pid) {
    if (kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const size_t paren = line.rfind(')');
    return paren == std::string::npos || paren + 2 >= line.size() || line[paren + 2] != 'Z';
}

void StartService(const std::string& name) {
    const std::string command = HostServiceCommandPath(name);
    if (access(command.c_str(), R_OK) != 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "Could not ctl.start for '%s': no host command at %s",
                            name.c_str(), command.c_str());
        return;
    }
    const pid_t running = ReadPid(name);
    if (running > 0 && IsAlive(running)) return;

    // Built before forking: the children of this multi-threaded process only
    // call async-signal-safe functions.
    const std::string rootVariable = "TARNIS_ROOT=" + GetRoot();
    std::vector<char*> envp;
    for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
        if (strncmp(*e, "TARNIS_ROOT=", 12) != 0) envp.push_back(*e);
    }
    envp.push_back(const_cast<char*>(rootVariable.c_str()));
    envp.push_back(nullptr);
    char shell[] = "/bin/sh";
    char* argv[] = {shell, const_cast<char*>(command.c_str()), nullptr};
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "ctl.start %s: pipe: %s", name.c_str(), strerror(errno));
        return;
    }
    // Double fork: the service is nobody's child here, as under init.
    const pid_t middle = fork();
    if (middle < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "ctl.start %s: fork: %s", name.c_str(), strerror(errno));
        close(pipeFds[0]);
        close(pipeFds[1]);
        return;
    }
    if (middle == 0) {
        const pid_t service = fork();
        if (service == 0) {
            setsid();
            // The daemon ignores SIGPIPE; a service starts with the default, as under init.
            signal(SIGPIPE, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            const int devNull = open("/dev/null", O_RDONLY);
            if (devNull >= 0) {
                dup2(devNull, STDIN_FILENO);
                if (devNull != STDIN_FILENO) close(devNull);
            }
            syscall(SYS_close_range, 3U, ~0U, 0U);
            execve(shell, argv, envp.data());
            _exit(127);
        }
        ssize_t ignored = write(pipeFds[1], &service, sizeof(service));
        (void)ignored;
        _exit(service > 0 ? 0 : 1);
    }
    close(pipeFds[1]);
    pid_t service = -1;
    ssize_t n;
    do {
        n = read(pipeFds[0], &service, sizeof(service));
    } while (n < 0 && errno == EINTR);
    close(pipeFds[0]);
    while (waitpid(middle, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (n != sizeof(service) || service <= 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "ctl.start %s: could not start", name.c_str());
        return;
    }
    MakeDirs(DevicePath("/dev/__services__"));
    std::ofstream(PidFile(name), std::ios::trunc) << service << "\n";
    __android_log_print(ANDROID_LOG_INFO, kTag, "starting service '%s' (pid %d)", name.c_str(), service);
    android::base::SetProperty("init.svc." + name, "running");
}

void StopService(const std::string& name) {
    if (access(HostServiceCommandPath(name).c_str(), R_OK) != 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "Could not ctl.stop for '%s': no host command",
                            name.c_str());
        return;
    }
    const pid_t pid = ReadPid(name);
    if (pid > 0 && IsAlive(pid)) {
        kill(-pid, SIGTERM);
        for (int waited = 0; waited < kStopWaitMs && IsAlive(pid); waited += 20) usleep(20 * 1000);
        if (IsAlive(pid)) kill(-pid, SIGKILL);
        __android_log_print(ANDROID_LOG_INFO, kTag, "stopped service '%s' (pid %d)", name.c_str(), pid);
    }
    unlink(PidFile(name).c_str());
    android::base::SetProperty("init.svc." + name, "stopped");
}

}  // namespace

std::string HostServiceCommandPath(const std::string& name) {
    return DevicePath("/system/etc/init/host/" + name);
}

void HandleControlProperty(const std::string& key, const std::string& value) {
    if (key != "ctl.start" && key != "ctl.stop") return;
    if (!IsValidServiceName(value)) {
        if (!value.empty()) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid service name '%s'", key.c_str(),
                                value.c_str());
        }
        return;
    }
    if (key == "ctl.start") {
        StartService(value);
    } else {
        StopService(value);
    }
}

}  // namespace platform
