#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

// The daemon and its tool as real processes of the build, driven as a user would from a shell.
namespace tarnis_test {

inline std::string BuiltTool(const std::string& name) { return std::string(TARNIS_BUILD_DIR) + "/" + name; }

// Whether `text` holds `part`; a failure shows the whole text.
inline ::testing::AssertionResult Holds(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// tarnisd on a root of its own, its output kept in files at the top of the root; stopped when the object goes.
class Daemon {
public:
    explicit Daemon(const TempDir& root) : root_(root) {}
    ~Daemon() { Stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // "tarnisd --root ROOT" and "tarnisctl --root ROOT" as shell command prefixes.
    std::string Command() const { return BuiltTool("tarnisd") + " --root " + root_.path(); }
    std::string Ctl() const { return BuiltTool("tarnisctl") + " --root " + root_.path(); }
    // tarnisctl with `args`: its standard output and error together.
    std::string Run(const std::string& args, int* status = nullptr) const {
        return RunShell(Ctl() + " " + args + " 2>&1", status);
    }
    // Starts it and waits (twenty seconds at most) until it answers a dump.
    ::testing::AssertionResult Start() {
        pid_ = fork();
        if (pid_ == 0) {
            if (freopen(out_.c_str(), "w", stdout) == nullptr || freopen(err_.c_str(), "w", stderr) == nullptr) {
                _exit(126);
            }
            execl(BuiltTool("tarnisd").c_str(), "tarnisd", "--root", root_.path().c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (pid_ < 0) return ::testing::AssertionFailure() << "fork failed";
        const auto serving = [this] {
            int status = -1;
            RunShell(Ctl() + " dump ModuleManager dump >/dev/null 2>&1", &status);
            return status == 0;
        };
        if (WaitFor(serving, std::chrono::seconds(20))) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "tarnisd never answered; its log:\n" << Log();
    }
    // SIGTERM, then its wait status (-1 when it was not running).
    int Stop() {
        int status = -1;
        if (pid_ > 0 && kill(pid_, SIGTERM) == 0 &&
            !WaitFor([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, std::chrono::seconds(20))) {
            kill(pid_, SIGKILL);  // one that ignores SIGTERM fails its test (not exited) instead of hanging it
            waitpid(pid_, &status, 0);
        }
        pid_ = -1;
        return status;
    }
    pid_t pid() const { return pid_; }
    std::string Out() const { return ReadFile(out_); }
    std::string Log() const { return ReadFile(err_); }

private:
    const TempDir& root_;
    const std::string out_ = root_.Sub("tarnisd.out");
    const std::string err_ = root_.Sub("tarnisd.err");
    pid_t pid_ = -1;
};

}  // namespace tarnis_test
