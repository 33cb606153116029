#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include <gtest/gtest.h>

#include <host/Host.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"
#include "utils/FileUtil.h"

using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;
using velmar::kolto::FileUtil;

namespace {

struct stat Lstat(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}
mode_t ModeOf(const std::string& path) { return Lstat(path).st_mode & 07777; }
bool IsLink(const std::string& path) { return S_ISLNK(Lstat(path).st_mode); }

// A tree of files, an empty directory, and links out of it (to a directory
// with contents, to a file), back into it (a loop) and nowhere.
class FileUtilTree : public ::testing::Test {
protected:
    void SetUp() override {
        for (const std::string& dir : {root_, root_ + "/sub", root_ + "/sub/deeper", root_ + "/empty", outside_,
                                       outside_ + "/keep"}) {
            ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        }
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

}  // namespace

TEST_F(FileUtilTree, ExistenceModesAndSizes) {
    ASSERT_EQ(symlink("missing", tmp_.Sub("dangling").c_str()), 0);
    EXPECT_FALSE(FileUtil::FileExist(tmp_.Sub("dangling")));
    EXPECT_FALSE(FileUtil::ChangeMode(tmp_.Sub("nope"), 0600));
    EXPECT_EQ(FileUtil::GetFileSize(tmp_.Sub("nope")), 0);
    // 5 GiB + 7 bytes (sparse): only the low 32 bits survive.
    const std::string big = tmp_.Sub("big");
    ASSERT_TRUE(WriteFile(big, ""));
    ASSERT_EQ(truncate(big.c_str(), (5LL << 30) + 7), 0);
    EXPECT_EQ(FileUtil::GetFileSize(big), (1 << 30) + 7);
    EXPECT_TRUE(FileUtil::ChangeMode(big, 0640));
    EXPECT_EQ(ModeOf(big), 0640u);
    // A link is no way to someone else's mode.
    ASSERT_EQ(symlink(big.c_str(), tmp_.Sub("link").c_str()), 0);
    EXPECT_FALSE(FileUtil::ChangeMode(tmp_.Sub("link"), 0777));
    EXPECT_EQ(ModeOf(big), 0640u);
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

    // A relative path starts at the root, which is the sandbox's, never the
    // host's "/" nor the working directory.
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

TEST_F(FileUtilTree, ListSizeAndDeleteTreatLinksAsLinks) {
    std::vector<std::string> list{"kept"};
    ASSERT_TRUE(FileUtil::GetFileListOnDirectory(root_, list));
    std::sort(list.begin(), list.end());
    EXPECT_EQ(list, (std::vector<std::string>{root_ + "/a.log", root_ + "/dangling", root_ + "/sub/deeper/c.log",
                                              root_ + "/sub/deeper/loop", root_ + "/sub/to_dir", root_ + "/to_file",
                                              "kept"}));
    std::vector<std::string> empty;
    EXPECT_TRUE(FileUtil::GetFileListOnDirectory(root_ + "/empty", empty));
    EXPECT_TRUE(empty.empty());

    long expected = 5000 + 70000;
    for (const char* own : {"", "/sub", "/sub/deeper", "/empty", "/sub/to_dir", "/to_file",
                            "/sub/deeper/loop", "/dangling"}) {
        expected += Lstat(root_ + own).st_size;
    }
    EXPECT_EQ(FileUtil::GetDirectorySize(root_), expected);
    // An empty directory weighs its own size, not 0.
    EXPECT_EQ(FileUtil::GetDirectorySize(root_ + "/empty"), Lstat(root_ + "/empty").st_size);
    EXPECT_GT(Lstat(root_ + "/empty").st_size, 0);
    platform::LogCapture capture;
    EXPECT_EQ(FileUtil::GetDirectorySize(tmp_.Sub("missing")), -1);
    EXPECT_TRUE(capture.HasLine("[GetDirectorySize] Cannot open dir: " + tmp_.Sub("missing")));
    EXPECT_FALSE(FileUtil::GetFileListOnDirectory(tmp_.Sub("missing"), empty));
    EXPECT_TRUE(capture.HasLine("[GetFileListOnDirectory] Open dir error...", "Tarnis-FileUtil"));

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
    // The small-file reader neither waits on the FIFO nor reads through the
    // link, and stops at its bound.
    std::string text;
    EXPECT_FALSE(FileUtil::ReadRegularFile(tmp_.Sub("fifo"), &text, 64));
    EXPECT_FALSE(FileUtil::ReadRegularFile(tmp_.Sub("planted"), &text, 64));
    EXPECT_TRUE(FileUtil::ReadRegularFile(tmp_.Sub("src.bin"), &text, 64));
    EXPECT_EQ(text, bytes.substr(0, 64));
}
