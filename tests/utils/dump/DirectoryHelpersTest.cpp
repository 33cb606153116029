#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/DirectoryHelpers.h"

using tarnis_test::SandboxTest;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WriteFile;

namespace {

class DirectoryHelpersTest : public SandboxTest {
protected:
    mode_t ModeOf(const std::string& path) {
        struct stat st;
        return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
    }
};

}  // namespace

TEST_F(DirectoryHelpersTest, DeleteDirContentsKeepsExclusionsAndNeverFollowsLinks) {
    const std::string dir = root_.Sub("tree");
    RunShell("mkdir -p '" + dir + "/keep' '" + dir + "/sub/deeper' '" + root_.Sub("outside") + "'");
    WriteFile(dir + "/a", "a");
    WriteFile(dir + "/keep/k", "k");
    WriteFile(dir + "/sub/deeper/d", "d");
    WriteFile(root_.Sub("outside/precious"), "p");
    symlink(root_.Sub("outside").c_str(), (dir + "/link").c_str());
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), false,
                                           [](const char* name, bool isDir) { return isDir && strcmp(name, "keep") == 0; }),
              0);
    EXPECT_EQ(RunShell("cd '" + dir + "' && find . | sort"), ".\n./keep\n./keep/k\n");
    EXPECT_EQ(ReadFile(root_.Sub("outside/precious")), "p");
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), true, nullptr), 0);
    EXPECT_NE(access(dir.c_str(), F_OK), 0);

    // A link in the directory's own place: neither emptied through nor removed.
    symlink(root_.Sub("outside").c_str(), root_.Sub("linked").c_str());
    platform::LogCapture log;
    EXPECT_EQ(android::delete_dir_contents((root_.Sub("linked") + "/").c_str(), true, nullptr), -1);
    EXPECT_EQ(ReadFile(root_.Sub("outside/precious")), "p");
    EXPECT_TRUE(log.HasLine("Couldn't opendir " + root_.Sub("linked") + "/: Not a directory\n",
                            "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(android::delete_dir_contents(root_.Sub("none").c_str(), false, nullptr), -1);
    EXPECT_TRUE(log.HasLine("Couldn't opendir " + root_.Sub("none") + ": No such file or directory\n", "dorvad",
                            ANDROID_LOG_ERROR));
}

TEST_F(DirectoryHelpersTest, CreateDirIfNeededMakesOrCorrectsOnlyRealDirectories) {
    const std::string made = root_.Sub("made");
    umask(022);
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    chmod(made.c_str(), 0700);
    platform::LogCapture log;
    EXPECT_EQ(android::create_dir_if_needed((made + "/").c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    EXPECT_TRUE(log.HasLine(made + "/perm 700 expected 750", "dorvad", ANDROID_LOG_WARN));
    // Already right: nothing to say.
    log.Clear();
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(log.Count("perm", "dorvad"), 0u);

    WriteFile(root_.Sub("file"), "12345");
    EXPECT_EQ(android::create_dir_if_needed(root_.Sub("file").c_str(), 0750), -1);
    EXPECT_TRUE(log.HasLine(root_.Sub("file") + " is not a dir.", "dorvad", ANDROID_LOG_ERROR));

    // A link planted in the directory's place: refused, its target's mode untouched.
    RunShell("mkdir -p '" + root_.Sub("outside") + "' && chmod 0700 '" + root_.Sub("outside") + "'");
    symlink(root_.Sub("outside").c_str(), root_.Sub("planted").c_str());
    EXPECT_EQ(android::create_dir_if_needed((root_.Sub("planted") + "/").c_str(), 0777), -1);
    EXPECT_TRUE(log.HasLine(root_.Sub("planted") + "/ is not a dir.", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_EQ(ModeOf(root_.Sub("outside")), 0700u);
    // A missing parent: mkdir's failure, nothing made.
    EXPECT_EQ(android::create_dir_if_needed(root_.Sub("no/such").c_str(), 0750), -1);
    EXPECT_NE(access(root_.Sub("no").c_str(), F_OK), 0);
}

TEST_F(DirectoryHelpersTest, CopyFileCopiesWholeFilesAndRefusesALinkedTarget) {
    const std::string big(300 * 1024, 'b');
    WriteFile(root_.Sub("file"), big);
    EXPECT_EQ(android::copy_file(root_.Sub("file").c_str(), root_.Sub("copy").c_str()), 0);
    EXPECT_EQ(ReadFile(root_.Sub("copy")), big);
    EXPECT_EQ(ModeOf(root_.Sub("copy")), 0664u & ~022u);
    // A shorter source replaces the whole of an existing copy.
    WriteFile(root_.Sub("file"), "12345");
    EXPECT_EQ(android::copy_file(root_.Sub("file").c_str(), root_.Sub("copy").c_str()), 0);
    EXPECT_EQ(ReadFile(root_.Sub("copy")), "12345");

    platform::LogCapture log;
    EXPECT_EQ(android::copy_file(root_.Sub("none").c_str(), root_.Sub("copy").c_str()), -1);
    EXPECT_TRUE(log.HasLine("Failed to open copy from " + root_.Sub("none") + "  reason: No such file or directory",
                            "dorvad", ANDROID_LOG_ERROR));
    WriteFile(root_.Sub("precious"), "p");
    symlink(root_.Sub("precious").c_str(), root_.Sub("planted").c_str());
    EXPECT_EQ(android::copy_file(root_.Sub("file").c_str(), root_.Sub("planted").c_str()), -1);
    EXPECT_EQ(ReadFile(root_.Sub("precious")), "p");
    EXPECT_TRUE(log.HasLine("Failed to open copy to " + root_.Sub("planted") +
                                "  reason: Too many levels of symbolic links",
                            "dorvad", ANDROID_LOG_ERROR));
}
