#include <fcntl.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <host/Host.h>

#include "tests/support/TempDir.h"
#include "utils/ConfinedPath.h"
#include "utils/Paths.h"

namespace paths = velmar::kolto::paths;
using tarnis_test::RunShell;
using tarnis_test::TempDir;

namespace {

class PathsTest : public ::testing::Test {
protected:
    void TearDown() override { platform::SetRoot("/"); }
};

}  // namespace

TEST_F(PathsTest, DevicePathsGoBelowTheRootAndBack) {
    TempDir root;
    platform::SetRoot(root.path());
    EXPECT_EQ(paths::Get("/data/anr/trace_1"), root.path() + "/data/anr/trace_1");
    // Mapping twice is harmless; a relative path is nobody's device path.
    EXPECT_EQ(paths::Get(paths::Get("/data/anr/")), root.path() + "/data/anr/");
    EXPECT_EQ(paths::Get("relative/name"), "relative/name");
    EXPECT_EQ(paths::DeviceOf(root.path() + "/data/anr/x"), "/data/anr/x");
    // Only what lies below the root has a device path of its own.
    EXPECT_EQ(paths::DeviceOf(root.path() + "x/y"), root.path() + "x/y");
    EXPECT_EQ(paths::DeviceOf("/data/anr/x"), "/data/anr/x");
    // The rescue partition on A/B devices, the cache partition on others.
    EXPECT_EQ(paths::Get(paths::kBootmonitorLog, true), root.path() + paths::kBootmonitorLog.rescue);
    EXPECT_EQ(paths::Get(paths::kBootmonitorLog, false), root.path() + paths::kBootmonitorLog.cache);
}

// Outside paths stay in their tree whichever way the walk is done: the
// kernel's openat2 or the descriptor walk of older kernels.
TEST_F(PathsTest, ConfinedPathsNeverLeaveTheirTree) {
    using velmar::kolto::ConfinedPath;
    TempDir root;
    platform::SetRoot(root.path());
    ASSERT_EQ(RunShell("mkdir -p " + root.Sub("data/a/b") + " " + root.Sub("outside") + " && echo s > " +
                       root.Sub("outside/secret") + " && echo k > " + root.Sub("data/a/b/keep") + " && ln -s " +
                       root.Sub("outside") + " " + root.Sub("data/a/link") + " && ln -s keep " +
                       root.Sub("data/a/b/leaf") + " && mkfifo " + root.Sub("data/a/fifo")),
              "");
    for (bool walk : {false, true}) {
        SCOPED_TRACE(walk ? "walk" : "openat2");
        ConfinedPath::UseWalkForTesting(walk);
        struct Case {
            const char* path;
            const char* why;  // "" when it opens
        } cases[] = {
            {"/data/a/b/keep", ""},
            {"/data/a/./b/../b/keep", ""},
            {"/data/../outside/secret", "is not below"},
            {"/data/a/../../../outside/secret", "climbs out of"},
            {"/data/a/link/secret", "passes through a symbolic link"},
            {"/data/a/b/leaf", "passes through a symbolic link"},
            {"/data/a/fifo", "is not a regular file"},
            {"data/a/b/keep", "is not an absolute path"},
        };
        for (const Case& c : cases) {
            std::string why;
            const android::base::unique_fd fd = ConfinedPath::OpenRegular(c.path, "/data", O_RDONLY, 0, &why);
            EXPECT_EQ(fd.ok(), c.why[0] == '\0') << c.path << ": " << why;
            EXPECT_NE(why.find(c.why), std::string::npos) << c.path << ": " << why;
        }
        // A link last where a directory is asked for is named as a link.
        std::string why;
        EXPECT_FALSE(ConfinedPath::Open("/data/a/link", "/data", O_RDONLY | O_DIRECTORY, 0, &why).ok());
        EXPECT_NE(why.find("passes through a symbolic link"), std::string::npos) << why;
        // Made and removed below the tree, never through the link.
        EXPECT_FALSE(ConfinedPath::MakeDirs("/data/a/link/made", "/data", 0755, &why).ok());
        EXPECT_FALSE(std::filesystem::exists(root.Sub("outside/made")));
        EXPECT_TRUE(ConfinedPath::MakeDirs("/data/a/new/deeper", "/data", 0755, &why).ok()) << why;
        EXPECT_FALSE(ConfinedPath::Remove("/data/a/link/secret", "/data", &why));
        EXPECT_TRUE(std::filesystem::exists(root.Sub("outside/secret")));
        EXPECT_TRUE(ConfinedPath::Remove("/data/a/b/leaf", "/data", &why)) << why;
        EXPECT_TRUE(std::filesystem::exists(root.Sub("data/a/b/keep")));
        ASSERT_EQ(RunShell("ln -s keep " + root.Sub("data/a/b/leaf")), "");
    }
    ConfinedPath::UseWalkForTesting(false);
}
