#pragma once

#include <sys/stat.h>

#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/Host.h>
#include <host/Utf8.h>
#include <log/log.h>
#include <utils/String16.h>

#include "platform/LogCapture.h"
#include "tests/support/LogLines.h"
#include "tests/support/TempDir.h"
#include "utils/dump/CaptureLogUtil.h"

namespace tarnis_test {

// Permission bits of what is at `path` itself, a link not followed (0: nothing there).
inline mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Whether the daemon logged the whole line `text` under its tag at `prio`.
inline bool Logged(const platform::LogCapture& log, const std::string& text, int prio = ANDROID_LOG_ERROR) {
    return log.HasLine(text, "dorvad", prio);
}

// Entry names of an archive, one a line, sorted.
inline std::string Entries(const std::string& zip) { return RunShell("unzip -Z1 '" + zip + "' | sort"); }

// A sandbox root for one test, with quick time-outs, and the lines logged.
class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::SetRoot(root_.path());
        android::CaptureLogUtil::SetTimeoutsForTesting({1, 2, 1});  // default, test mode, kill wait (s)
        android::CaptureLogUtil::ResetTestModeForTesting();
    }
    void TearDown() override {
        android::CaptureLogUtil::SetTimeoutsForTesting(android::CaptureLogUtil::Timeouts());
        android::CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
        platform::SetRoot("/");
    }
    std::string Path(const std::string& devicePath) const { return platform::DevicePath(devicePath); }
    TempDir root_;
    platform::LogCapture log_;
};

// A sandbox for the capture calls, which take device paths in UTF-16 lists.
class CaptureSandboxTest : public SandboxTest {
protected:
    static std::vector<android::String16> List(std::initializer_list<const char*> items) {
        std::vector<android::String16> list;
        for (const char* item : items) list.push_back(platform::ToUtf16(item));
        return list;
    }
    void MakeDirs(std::initializer_list<std::string> devicePaths) {
        for (const std::string& dir : devicePaths) RunShell("mkdir -p '" + Path(dir) + "'");
    }
    // Creates a device file, and its directory; returns its path.
    std::string Make(const std::string& devicePath, const std::string& content = "content\n") {
        const std::string path = Path(devicePath);
        RunShell("mkdir -p \"$(dirname '" + path + "')\"");
        WriteFile(path, content);
        return path;
    }
    // Names in a device directory, one a line, sorted.
    std::string Names(const std::string& deviceDir) { return RunShell("ls -1 '" + Path(deviceDir) + "' 2>/dev/null"); }
};

}  // namespace tarnis_test
