#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include <gtest/gtest.h>

#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"
#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"

using namespace tarnis_test;
using velmar::kolto::ConfinedPath;
using velmar::kolto::FileUtil;
namespace paths = velmar::kolto::paths;

namespace {

struct stat Lstat(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}
mode_t ModeOf(const std::string& path) { return Lstat(path).st_mode & 07777; }
bool IsLink(const std::string& path) { return S_ISLNK(Lstat(path).st_mode); }

// A tree of files, an empty directory, and links out of it (to a directory, a file), back into it and nowhere.
class FileUtilTree : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RunShell("mkdir -p '" + root_ + "/sub/deeper' '" + root_ + "/empty' '" + outside_ + "/keep'"), "");
        ASSERT_TRUE(WriteFile(root_ + "/a.log", std::string(5000, 'a')));
        ASSERT_TRUE(WriteFile(root_ + "/sub/deeper/c.log", std::string(70000, 'c')));
        ASSERT_TRUE(WriteFile(outside_ + "/keep/precious.txt", "precious"));
        ASSERT_TRUE(WriteFile(outside_ + "/file.txt", "outside file"));
        ASSERT_EQ(symlink((outside_ + "/keep").c_str(), (root_ + "/sub/to_dir").c_str()), 0);
        ASSERT_EQ(symlink((outside_ + "/file.txt").c_str(), (root_ + "/to_file").c_str()), 0);
        ASSERT_EQ(symlink("..", (root_ + "/sub/deeper/loop").c_str()), 0);
        ASSERT_EQ(symlink("/nonexistent/x", (root_ + "/dangling").c_str()), 0);
    }

    TempDir tmp_;
    const std::string root_ = tmp_.Sub("tree");
    const std::string outside_ = tmp_.Sub("outside");
};

class PathsTest : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root_.path()); }
    void TearDown() override { platform::SetRoot("/"); }
    TempDir root_;
};

}  // namespace

// A link is no way to someone else's mode, nor does a dangling one exist.
TEST_F(FileUtilTree, ExistenceAndModesTreatLinksAsLinks) {
    EXPECT_FALSE(FileUtil::FileExist(root_ + "/dangling"));
    EXPECT_FALSE(FileUtil::ChangeMode(tmp_.Sub("nope"), 0600));
    EXPECT_TRUE(FileUtil::ChangeMode(root_ + "/a.log", 0640));
    EXPECT_EQ(ModeOf(root_ + "/a.log"), 0640u);
    const mode_t before = ModeOf(outside_ + "/file.txt");
    EXPECT_FALSE(FileUtil::ChangeMode(root_ + "/to_file", 0777));
    EXPECT_EQ(ModeOf(outside_ + "/file.txt"), before);
}

TEST_F(FileUtilTree, CreateDirectoryWithOwner) {
    const mode_t oldMask = umask(077);
    ASSERT_EQ(chmod(tmp_.path().c_str(), 0700), 0);
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(tmp_.Sub("x/y/z/"), 4321, 4322));
    // Everything created ends at 0775 despite the mask; the parent found is untouched.
    EXPECT_EQ(ModeOf(tmp_.Sub("x")), 0775u);
    EXPECT_EQ(ModeOf(tmp_.Sub("x/y/z")), 0775u);
    EXPECT_EQ(ModeOf(tmp_.path()), 0700u);
    // An existing directory only changes hands.
    ASSERT_EQ(chmod(tmp_.Sub("x/y").c_str(), 0700), 0);
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(tmp_.Sub("x/y"), 4321, 4322));
    EXPECT_EQ(ModeOf(tmp_.Sub("x/y")), 0700u);
    if (getuid() == 0) {
        EXPECT_EQ(Lstat(tmp_.Sub("x/y/z")).st_uid, 4321u);
        EXPECT_EQ(Lstat(tmp_.Sub("x/y")).st_gid, 4322u);
        EXPECT_EQ(Lstat(tmp_.Sub("x")).st_uid, 0u);  // parents keep their owner
    }
    ASSERT_TRUE(WriteFile(tmp_.Sub("plain"), "x"));
    platform::LogCapture capture;
    EXPECT_FALSE(FileUtil::CreateDirectoryWithOwner(tmp_.Sub("plain/q/r"), 1000, 1000));
    EXPECT_TRUE(capture.HasLine("[CreateDirectory] mkdir " + tmp_.Sub("plain/q") + " failed, " +
                                     tmp_.Sub("plain/q/r") + ", err:Not a directory",
                                 "Tarnis-FileUtil", ANDROID_LOG_ERROR));

    // A relative path starts at the sandbox's root, never the host's "/" nor the working directory.
    TempDir elsewhere;
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(elsewhere.path().c_str()), 0);
    platform::SetRoot(tmp_.path());
    const std::string unique = "tarnis-rel-" + std::to_string(getpid());
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(unique + "/b/", 1000, 1000));
    EXPECT_EQ(ModeOf(tmp_.Sub(unique)), 0775u);
    EXPECT_EQ(ModeOf(tmp_.Sub(unique + "/b")), 0775u);
    EXPECT_FALSE(FileUtil::FileExist("/" + unique));
    EXPECT_FALSE(FileUtil::FileExist(elsewhere.Sub(unique)));
    platform::SetRoot("/");
    ASSERT_EQ(chdir(cwd), 0);
    umask(oldMask);
}

TEST_F(FileUtilTree, DeleteCountsWhatItFreedAndNeverFollowsLinks) {
    long expected = 5000 + 70000;
    for (const char* own : {"", "/sub", "/sub/deeper", "/empty", "/sub/to_dir", "/to_file",
                            "/sub/deeper/loop", "/dangling"}) {
        expected += Lstat(root_ + own).st_size;
    }
    unsigned long freed = 777;
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(tmp_.Sub("missing"), &freed), -1);
    EXPECT_EQ(freed, 777u);
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(root_, &freed), 0);
    EXPECT_EQ(freed, static_cast<unsigned long>(expected));
    EXPECT_FALSE(FileUtil::FileExist(root_));
    // Nothing the links pointed at was touched, nor through a link given at the top.
    ASSERT_EQ(symlink(outside_.c_str(), tmp_.Sub("toplink").c_str()), 0);
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(tmp_.Sub("toplink"), nullptr), 0);
    EXPECT_FALSE(IsLink(tmp_.Sub("toplink")));
    EXPECT_EQ(ReadFile(outside_ + "/keep/precious.txt"), "precious");
    EXPECT_EQ(ReadFile(outside_ + "/file.txt"), "outside file");
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(outside_ + "/file.txt", &freed), 0);
    EXPECT_EQ(freed, 12u);
}

TEST_F(FileUtilTree, CopyNeverEntersLinks) {
    // A file over several chunks replaces a longer one.
    std::string bytes;
    for (int i = 0; i < 10000; ++i) bytes.push_back(static_cast<char>(i * 7 % 256));
    ASSERT_TRUE(WriteFile(tmp_.Sub("src.bin"), bytes));
    ASSERT_TRUE(WriteFile(tmp_.Sub("dst.bin"), std::string(20000, 'z')));
    EXPECT_TRUE(FileUtil::CopyFileOrDirectory(tmp_.Sub("src.bin"), tmp_.Sub("dst.bin")));
    EXPECT_EQ(ReadFile(tmp_.Sub("dst.bin")), bytes);
    // A sparse log stays sparse: 256 MiB of hole and one byte at the end.
    const std::string sparse = tmp_.Sub("sparse");
    ASSERT_EQ(RunShell("truncate -s 256M '" + sparse + "' && printf x >> '" + sparse + "'"), "");
    EXPECT_TRUE(FileUtil::CopyFileOrDirectory(tmp_.Sub("sparse"), tmp_.Sub("sparse.copy")));
    struct stat copied {};
    ASSERT_EQ(stat(tmp_.Sub("sparse.copy").c_str(), &copied), 0);
    EXPECT_EQ(copied.st_size, 256 * 1024 * 1024 + 1);
    EXPECT_LT(copied.st_blocks, 1024);

    const std::string copy = tmp_.Sub("copy");
    ASSERT_TRUE(FileUtil::CopyFileOrDirectory(root_, copy));
    EXPECT_EQ(ReadFile(copy + "/sub/deeper/c.log"), std::string(70000, 'c'));
    EXPECT_TRUE(FileUtil::IsDirectory(copy + "/empty"));
    EXPECT_EQ(ReadFile(copy + "/to_file"), "outside file");  // a file link brings its bytes
    EXPECT_FALSE(IsLink(copy + "/to_file"));
    EXPECT_TRUE(IsLink(copy + "/sub/to_dir"));
    EXPECT_TRUE(IsLink(copy + "/sub/deeper/loop"));
    EXPECT_TRUE(IsLink(copy + "/dangling"));

    platform::LogCapture capture;
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(root_, copy));
    EXPECT_TRUE(capture.HasLine("[CopyFileOrDirectory] Error creating directory: File exists"));
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp_.Sub("missing"), tmp_.Sub("m2")));
    EXPECT_TRUE(capture.HasLine("[CopyFileOrDirectory] Error checking path: No such file or directory"));
    ASSERT_EQ(mkfifo(tmp_.Sub("fifo").c_str(), 0600), 0);  // refused, not waited on
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp_.Sub("fifo"), tmp_.Sub("fifo.copy")));
    // A link planted at the destination is not written through.
    ASSERT_EQ(symlink((outside_ + "/file.txt").c_str(), tmp_.Sub("planted").c_str()), 0);
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp_.Sub("src.bin"), tmp_.Sub("planted")));
    EXPECT_EQ(ReadFile(outside_ + "/file.txt"), "outside file");
    // The small-file reader neither waits on the FIFO nor reads through the link, and stops at its bound.
    std::string text;
    EXPECT_FALSE(FileUtil::ReadRegularFile(tmp_.Sub("fifo"), &text, 64));
    EXPECT_FALSE(FileUtil::ReadRegularFile(tmp_.Sub("planted"), &text, 64));
    EXPECT_TRUE(FileUtil::ReadRegularFile(tmp_.Sub("src.bin"), &text, 64));
    EXPECT_EQ(text, bytes.substr(0, 64));
}

TEST_F(PathsTest, DevicePathsGoBelowTheRootAndBack) {
    EXPECT_EQ(paths::Get("/data/anr/trace_1"), root_.path() + "/data/anr/trace_1");
    // Mapping twice is harmless; a relative path is nobody's device path.
    EXPECT_EQ(paths::Get(paths::Get("/data/anr/")), root_.path() + "/data/anr/");
    EXPECT_EQ(paths::Get("relative/name"), "relative/name");
    EXPECT_EQ(paths::DeviceOf(root_.path() + "/data/anr/x"), "/data/anr/x");
    // Only what lies below the root has a device path of its own.
    EXPECT_EQ(paths::DeviceOf(root_.path() + "x/y"), root_.path() + "x/y");
}

// Paths stay in their tree whether walked by openat2 or by the descriptor walk of older kernels.
TEST_F(PathsTest, ConfinedPathsNeverLeaveTheirTree) {
    ASSERT_EQ(RunShell("mkdir -p " + root_.Sub("data/a/b") + " " + root_.Sub("outside") + " && echo s > " +
                       root_.Sub("outside/secret") + " && echo k > " + root_.Sub("data/a/b/keep") + " && ln -s " +
                       root_.Sub("outside") + " " + root_.Sub("data/a/link") + " && ln -s keep " +
                       root_.Sub("data/a/b/leaf") + " && mkfifo " + root_.Sub("data/a/fifo")),
              "");
    for (bool walk : {false, true}) {
        SCOPED_TRACE(walk ? "walk" : "openat2");
        ConfinedPath::UseWalkForTesting(walk);
        const std::pair<const char*, const char*> cases[] = {  // a path, and why it is refused ("" if not)
            {"/data/a/b/keep", ""},
            {"/data/a/./b/../b/keep", ""},
            {"/data/../outside/secret", "is not below"},
            {"/data/a/../../../outside/secret", "climbs out of"},
            {"/data/a/link/secret", "passes through a symbolic link"},
            {"/data/a/b/leaf", "passes through a symbolic link"},
            {"/data/a/fifo", "is not a regular file"},
            {"data/a/b/keep", "is not an absolute path"},
        };
        for (const auto& [path, refusal] : cases) {
            std::string why;
            const android::base::unique_fd fd = ConfinedPath::OpenRegular(path, "/data", O_RDONLY, 0, &why);
            EXPECT_EQ(fd.ok(), refusal[0] == '\0') << path << ": " << why;
            EXPECT_NE(why.find(refusal), std::string::npos) << path << ": " << why;
        }
        // A link last where a directory is asked for is named as a link.
        std::string why;
        EXPECT_FALSE(ConfinedPath::Open("/data/a/link", "/data", O_RDONLY | O_DIRECTORY, 0, &why).ok());
        EXPECT_NE(why.find("passes through a symbolic link"), std::string::npos) << why;
        // Made and removed below the tree, never through the link.
        EXPECT_FALSE(ConfinedPath::MakeDirs("/data/a/link/made", "/data", 0755, &why).ok());
        EXPECT_FALSE(std::filesystem::exists(root_.Sub("outside/made")));
        EXPECT_TRUE(ConfinedPath::MakeDirs("/data/a/new/deeper", "/data", 0755, &why).ok()) << why;
        EXPECT_FALSE(ConfinedPath::Remove("/data/a/link/secret", "/data", &why));
        EXPECT_TRUE(std::filesystem::exists(root_.Sub("outside/secret")));
        EXPECT_TRUE(ConfinedPath::Remove("/data/a/b/leaf", "/data", &why)) << why;
        EXPECT_TRUE(std::filesystem::exists(root_.Sub("data/a/b/keep")));
        ASSERT_EQ(RunShell("ln -s keep " + root_.Sub("data/a/b/leaf")), "");
    }
    ConfinedPath::UseWalkForTesting(false);
}
