#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <host/Host.h>
#include "tests/support/TempDir.h"
#include "utils/dump/CaptureLogUtil.h"

namespace dump_test {

// Sends this process's standard error (and so that of every child forked
// meanwhile) to a file, for the lines children log.
class StderrToFile {
public:
    explicit StderrToFile(const std::string& path) : path_(path) {
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrToFile() { Restore(); }
    // Restores standard error and returns what was written meanwhile.
    std::string Take() {
        Restore();
        return tarnis_test::ReadFile(path_);
    }

private:
    void Restore() {
        if (saved_ < 0) return;
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        saved_ = -1;
    }
    std::string path_;
    int saved_ = -1;
};

// A sandbox root for one test, with quick time-outs.
class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        android::CaptureLogUtil::Timeouts quick;
        quick.defaultSeconds = 1;
        quick.testModeSeconds = 2;
        quick.killWaitSeconds = 1;
        android::CaptureLogUtil::SetTimeoutsForTesting(quick);
        android::CaptureLogUtil::ResetTestModeForTesting();
    }
    void TearDown() override {
        android::CaptureLogUtil::SetTimeoutsForTesting(android::CaptureLogUtil::Timeouts());
        android::CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
        platform::SetRoot("/");
    }
    std::string Path(const std::string& devicePath) const { return platform::DevicePath(devicePath); }
    tarnis_test::TempDir root_;
};

}  // namespace dump_test
