#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "platform/Log.h"
#include "platform/LogCapture.h"
#include "platform/Root.h"
#include "tests/support/TempDir.h"
#include "utils/FileUtil.h"

using tarnis_test::ReadFile;
using tarnis_test::TempDir;
using tarnis_test::WriteFile;
using velmar::kolto::FileUtil;

namespace {

const char kTag[] = "Tarnis-FileUtil";

mode_t ModeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

uid_t OwnerOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_uid : uid_t(-1);
}

bool IsLink(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

long LinkSize(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// A tree with nested files, an empty directory and links that lead out of it
// (to a directory with contents, to a file), back into it (a loop) and
// nowhere. `outside` holds the link targets.
void MakeTree(const std::string& root, const std::string& outside) {
    ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((root + "/sub").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((root + "/sub/deeper").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((root + "/empty").c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(root + "/a.log", std::string(5000, 'a')));
    ASSERT_TRUE(WriteFile(root + "/sub/b.log", "bee"));
    ASSERT_TRUE(WriteFile(root + "/sub/deeper/c.log", std::string(70000, 'c')));
    ASSERT_EQ(mkdir(outside.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((outside + "/keep").c_str(), 0755), 0);
    ASSERT_TRUE(WriteFile(outside + "/keep/precious.txt", "precious"));
    ASSERT_TRUE(WriteFile(outside + "/file.txt", "outside file"));
    ASSERT_EQ(symlink((outside + "/keep").c_str(), (root + "/sub/to_dir").c_str()), 0);
    ASSERT_EQ(symlink((outside + "/file.txt").c_str(), (root + "/to_file").c_str()), 0);
    ASSERT_EQ(symlink("..", (root + "/sub/deeper/loop").c_str()), 0);
    ASSERT_EQ(symlink("/nonexistent/x", (root + "/dangling").c_str()), 0);
}

}  // namespace

TEST(FileUtilTest, ExistenceModesAndSizes) {
    TempDir tmp;
    const std::string file = tmp.Sub("f");
    ASSERT_TRUE(WriteFile(file, "12345"));
    ASSERT_EQ(symlink("missing", tmp.Sub("dangling").c_str()), 0);
    ASSERT_EQ(symlink(tmp.path().c_str(), tmp.Sub("dirlink").c_str()), 0);

    EXPECT_TRUE(FileUtil::FileExist(file));
    EXPECT_FALSE(FileUtil::FileExist(tmp.Sub("dangling")));
    EXPECT_FALSE(FileUtil::FileExist(tmp.Sub("nope")));
    EXPECT_TRUE(FileUtil::IsDirectory(tmp.path()));
    EXPECT_TRUE(FileUtil::IsDirectory(tmp.Sub("dirlink")));
    EXPECT_FALSE(FileUtil::IsDirectory(file));
    EXPECT_FALSE(FileUtil::IsDirectory(tmp.Sub("nope")));

    EXPECT_EQ(FileUtil::GetFileSize(file), 5);
    EXPECT_EQ(FileUtil::GetFileSize(tmp.Sub("nope")), 0);
    // 5 GiB + 7 (sparse): only the low 32 bits survive.
    const std::string big = tmp.Sub("big");
    ASSERT_TRUE(WriteFile(big, ""));
    ASSERT_EQ(truncate(big.c_str(), (5LL << 30) + 7), 0);
    EXPECT_EQ(FileUtil::GetFileSize(big), (1 << 30) + 7);

    EXPECT_FALSE(FileUtil::ChangeMode(tmp.Sub("nope"), 0600));
    EXPECT_TRUE(FileUtil::ChangeMode(file, 0640));
    EXPECT_EQ(ModeOf(file), 0640u);
}

TEST(FileUtilTest, CreateDirectoryWithOwnerAbsolute) {
    TempDir tmp;
    const mode_t oldMask = umask(022);
    ASSERT_EQ(chmod(tmp.path().c_str(), 0700), 0);
    const std::string deep = tmp.Sub("x/y/z/");
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(deep, 4321, 4322));
    // Everything created is 0775 despite the mask; the parent it found is untouched.
    EXPECT_EQ(ModeOf(tmp.Sub("x")), 0775u);
    EXPECT_EQ(ModeOf(tmp.Sub("x/y")), 0775u);
    EXPECT_EQ(ModeOf(tmp.Sub("x/y/z")), 0775u);
    EXPECT_EQ(ModeOf(tmp.path()), 0700u);

    // An existing directory only changes hands.
    ASSERT_EQ(chmod(tmp.Sub("x/y").c_str(), 0700), 0);
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(tmp.Sub("x/y"), 4321, 4322));
    EXPECT_EQ(ModeOf(tmp.Sub("x/y")), 0700u);
    // Only the deepest of a partly existing path is the parent's concern.
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(tmp.Sub("x/y/w"), 4321, 4322));
    EXPECT_EQ(ModeOf(tmp.Sub("x/y/w")), 0775u);
    EXPECT_EQ(ModeOf(tmp.Sub("x/y")), 0700u);
    if (getuid() == 0) {
        EXPECT_EQ(OwnerOf(tmp.Sub("x/y/z")), 4321u);
        EXPECT_EQ(OwnerOf(tmp.Sub("x/y")), 4321u);
        EXPECT_EQ(OwnerOf(tmp.Sub("x")), 0u);  // parents keep their owner
    }

    // A file in the way: the mkdir failure is reported with the prefix and the request.
    ASSERT_TRUE(WriteFile(tmp.Sub("plain"), "x"));
    platform::LogCapture capture;
    EXPECT_FALSE(FileUtil::CreateDirectoryWithOwner(tmp.Sub("plain/q/r"), 1000, 1000));
    EXPECT_TRUE(capture.Contains("[CreateDirectory] mkdir " + tmp.Sub("plain/q") + " failed, " +
                                     tmp.Sub("plain/q/r") + ", err:Not a directory",
                                 kTag, ANDROID_LOG_ERROR));
    umask(oldMask);
}

TEST(FileUtilTest, CreateDirectoryWithOwnerRelativeStartsAtTheRoot) {
    TempDir tmp;
    TempDir elsewhere;
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    const mode_t oldMask = umask(077);
    platform::SetRoot(tmp.path());
    // Run from another directory so that the walk can only land below the root.
    ASSERT_EQ(chdir(elsewhere.path().c_str()), 0);
    const std::string unique = "tarnis-rel-" + std::to_string(getpid());
    const std::string relative = unique + "/b/";
    EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(relative, 1000, 1000));
    EXPECT_EQ(ModeOf(tmp.Sub(unique)), 0775u);
    EXPECT_EQ(ModeOf(tmp.Sub(unique + "/b")), 0775u);
    EXPECT_FALSE(FileUtil::FileExist("/" + unique));
    EXPECT_FALSE(FileUtil::FileExist(elsewhere.Sub(unique)));
    if (getuid() == 0) {
        // The owner change goes to the path as written, here below the
        // working directory, where it does not exist.
        EXPECT_EQ(OwnerOf(tmp.Sub(unique + "/b")), 0u);
        ASSERT_EQ(chdir(tmp.path().c_str()), 0);
        EXPECT_TRUE(FileUtil::CreateDirectoryWithOwner(relative, 1000, 1001));
        EXPECT_EQ(OwnerOf(tmp.Sub(unique + "/b")), 1000u);
    }
    ASSERT_EQ(chdir(cwd), 0);
    platform::SetRoot("/");
    umask(oldMask);
}

TEST(FileUtilTest, DirectorySizeCountsLinksNotTargets) {
    TempDir tmp;
    const std::string root = tmp.Sub("tree");
    MakeTree(root, tmp.Sub("outside"));
    const long expected = LinkSize(root) + LinkSize(root + "/sub") + LinkSize(root + "/sub/deeper") +
                          LinkSize(root + "/empty") + 5000 + 3 + 70000 +
                          LinkSize(root + "/sub/to_dir") + LinkSize(root + "/to_file") +
                          LinkSize(root + "/sub/deeper/loop") + LinkSize(root + "/dangling");
    EXPECT_EQ(FileUtil::GetDirectorySize(root), expected);
    // An empty directory weighs its own size, not 0.
    EXPECT_EQ(FileUtil::GetDirectorySize(root + "/empty"), LinkSize(root + "/empty"));
    EXPECT_GT(LinkSize(root + "/empty"), 0);

    platform::LogCapture capture;
    EXPECT_EQ(FileUtil::GetDirectorySize(tmp.Sub("missing")), -1);
    EXPECT_TRUE(capture.Contains("[GetDirectorySize] Cannot open dir: " + tmp.Sub("missing"), kTag,
                                 ANDROID_LOG_ERROR));
    EXPECT_EQ(FileUtil::GetDirectorySize(root + "/a.log"), -1);
}

TEST(FileUtilTest, DeleteRemovesLinksAsLinksAndCountsBytes) {
    TempDir tmp;
    const std::string root = tmp.Sub("tree");
    const std::string outside = tmp.Sub("outside");
    MakeTree(root, outside);
    const long size = FileUtil::GetDirectorySize(root);

    unsigned long freed = 777;
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(tmp.Sub("missing"), &freed), -1);
    EXPECT_EQ(freed, 777u);

    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(root, &freed), 0);
    EXPECT_EQ(freed, static_cast<unsigned long>(size));
    EXPECT_FALSE(FileUtil::FileExist(root));
    EXPECT_FALSE(IsLink(root));
    // Nothing the links pointed at was touched.
    EXPECT_EQ(ReadFile(outside + "/keep/precious.txt"), "precious");
    EXPECT_EQ(ReadFile(outside + "/file.txt"), "outside file");

    // A single file, a link given at the top, and no counter at all.
    ASSERT_TRUE(WriteFile(tmp.Sub("one"), "123456"));
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(tmp.Sub("one"), &freed), 0);
    EXPECT_EQ(freed, 6u);
    EXPECT_FALSE(FileUtil::FileExist(tmp.Sub("one")));
    ASSERT_EQ(symlink(outside.c_str(), tmp.Sub("toplink").c_str()), 0);
    EXPECT_EQ(FileUtil::DeleteDirectoryOrFile(tmp.Sub("toplink"), nullptr), 0);
    EXPECT_FALSE(IsLink(tmp.Sub("toplink")));
    EXPECT_EQ(ReadFile(outside + "/keep/precious.txt"), "precious");
}

TEST(FileUtilTest, CopyFilesAndTreesWithoutEnteringLinks) {
    TempDir tmp;
    const std::string root = tmp.Sub("tree");
    const std::string outside = tmp.Sub("outside");
    MakeTree(root, outside);

    // A file larger than one chunk, over a longer existing destination.
    std::string bytes;
    for (int i = 0; i < 10000; ++i) bytes.push_back(static_cast<char>(i * 7 % 256));
    ASSERT_TRUE(WriteFile(tmp.Sub("src.bin"), bytes));
    ASSERT_TRUE(WriteFile(tmp.Sub("dst.bin"), std::string(20000, 'z')));
    EXPECT_TRUE(FileUtil::CopyFileOrDirectory(tmp.Sub("src.bin"), tmp.Sub("dst.bin")));
    EXPECT_EQ(ReadFile(tmp.Sub("dst.bin")), bytes);

    const std::string copy = tmp.Sub("copy");
    ASSERT_TRUE(FileUtil::CopyFileOrDirectory(root, copy));
    EXPECT_EQ(ReadFile(copy + "/a.log"), std::string(5000, 'a'));
    EXPECT_EQ(ReadFile(copy + "/sub/deeper/c.log"), std::string(70000, 'c'));
    EXPECT_TRUE(FileUtil::IsDirectory(copy + "/empty"));
    // A link to a file brings its bytes; links to directories and dangling
    // links are recreated, never entered.
    EXPECT_FALSE(IsLink(copy + "/to_file"));
    EXPECT_EQ(ReadFile(copy + "/to_file"), "outside file");
    EXPECT_TRUE(IsLink(copy + "/sub/to_dir"));
    EXPECT_TRUE(IsLink(copy + "/sub/deeper/loop"));
    EXPECT_TRUE(IsLink(copy + "/dangling"));

    platform::LogCapture capture;
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(root, copy));
    EXPECT_TRUE(capture.Contains("[CopyFileOrDirectory] Error creating directory: File exists", kTag,
                                 ANDROID_LOG_ERROR));
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp.Sub("missing"), tmp.Sub("m2")));
    EXPECT_TRUE(capture.Contains(
        "[CopyFileOrDirectory] Error checking path: No such file or directory", kTag));
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(root + "/a.log", tmp.Sub("no/such/dir/x")));
    EXPECT_TRUE(capture.Contains("[CopyFileOrDirectory] Error opening destination file:", kTag));
    // A fifo has no end: it is refused, not waited on.
    ASSERT_EQ(mkfifo(tmp.Sub("fifo").c_str(), 0600), 0);
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp.Sub("fifo"), tmp.Sub("fifo.copy")));
    // A link planted at the destination is not written through.
    ASSERT_EQ(symlink((outside + "/file.txt").c_str(), tmp.Sub("planted").c_str()), 0);
    EXPECT_FALSE(FileUtil::CopyFileOrDirectory(tmp.Sub("src.bin"), tmp.Sub("planted")));
    EXPECT_EQ(ReadFile(outside + "/file.txt"), "outside file");
}

TEST(FileUtilTest, FileListHasFilesAndLinksOnly) {
    TempDir tmp;
    const std::string root = tmp.Sub("tree");
    MakeTree(root, tmp.Sub("outside"));
    std::vector<std::string> list{"kept"};
    ASSERT_TRUE(FileUtil::GetFileListOnDirectory(root, list));
    ASSERT_FALSE(list.empty());
    EXPECT_EQ(list[0], "kept");  // appended, not replaced
    std::sort(list.begin() + 1, list.end());
    const std::vector<std::string> expected{
        "kept",          root + "/a.log",           root + "/dangling",
        root + "/sub/b.log", root + "/sub/deeper/c.log", root + "/sub/deeper/loop",
        root + "/sub/to_dir", root + "/to_file"};
    std::vector<std::string> sortedExpected = expected;
    std::sort(sortedExpected.begin() + 1, sortedExpected.end());
    EXPECT_EQ(list, sortedExpected);

    std::vector<std::string> empty;
    EXPECT_TRUE(FileUtil::GetFileListOnDirectory(root + "/empty", empty));
    EXPECT_TRUE(empty.empty());
    platform::LogCapture capture;
    EXPECT_FALSE(FileUtil::GetFileListOnDirectory(tmp.Sub("missing"), empty));
    EXPECT_TRUE(capture.Contains("[GetFileListOnDirectory] Open dir error...", kTag,
                                 ANDROID_LOG_ERROR));
}
