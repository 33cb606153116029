// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <regex>
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

// Quoted device paths ("/data/...", "/proc/...", ...) in the code of a file,
// comment lines left out; each as "file:line: text".
std::vector<std::string> InlineDevicePaths(const std::filesystem::path& file) {
    static const std::regex devicePath(
        "\"/(data|proc|sys|mnt|cache|dev|system|system_ext|vendor|sdcard|persist)(/|\")");
    // The process's own view of itself and the kernel's byte sources are no
    // device paths: they stay what they are below any root.
    static const std::regex hostOnly("\"/(proc/self/|dev/null\"|dev/urandom\")");
    std::vector<std::string> found;
    std::ifstream in(file);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        const size_t code = line.find_first_not_of(" \t");
        if (code != std::string::npos && line.compare(code, 2, "//") == 0) continue;
        if (std::regex_search(line, devicePath) && !std::regex_search(line, hostOnly)) {
            found.push_back(file.string() + ":" + std::to_string(number) + ": " + line);
        }
    }
    return found;
}

}  // namespace

TEST_F(PathsTest, GetPutsDevicePathsBelowTheRoot) {
    platform::SetRoot("/");
    EXPECT_EQ(paths::Get(paths::kDorvaDir), "/data/dorva/");
    EXPECT_EQ(paths::Get(paths::kLogConfig), "/system_ext/etc/tarnsys/log_config.json");

    // One call re-roots every path of the table.
    TempDir root;
    platform::SetRoot(root.path());
    EXPECT_EQ(paths::Get(paths::kDorvaDir), root.path() + "/data/dorva/");
    EXPECT_EQ(paths::Get(paths::kBlackbox), root.path() + "/dev/block/by-name/blackbox");
    EXPECT_EQ(paths::Get(paths::kZelKernelDir), root.path() + "/proc/zel_kernel/");
    // Paths built from the table's, and paths that came from outside, alike.
    EXPECT_EQ(paths::Get(std::string(paths::kAnrDir) + "trace_1"), root.path() + "/data/anr/trace_1");
    // Mapping twice is harmless; a relative path is nobody's device path.
    EXPECT_EQ(paths::Get(paths::Get(paths::kAnrDir)), root.path() + "/data/anr/");
    EXPECT_EQ(paths::Get("relative/name"), "relative/name");
    EXPECT_EQ(paths::Get(""), "");

    // The rescue partition on A/B devices, the cache partition on the others.
    EXPECT_EQ(paths::Get(paths::kBootmonitorLog, true), root.path() + "/mnt/rescue/dorva/bootmonitor_log.txt");
    EXPECT_EQ(paths::Get(paths::kBootmonitorLog, false), root.path() + "/cache/dorva/bootmonitor_log.txt");
    EXPECT_STREQ(paths::kRescueBase.For(true), "/mnt/rescue/");
    EXPECT_STREQ(paths::kRescueBase.For(false), "/cache/");
}

TEST_F(PathsTest, TableHoldsCleanAbsolutePathsOnly) {
    const std::filesystem::path table = std::filesystem::path(TARNIS_SOURCE_DIR) / "utils/Paths.h";
    std::ifstream in(table);
    ASSERT_TRUE(in.good()) << table;
    static const std::regex literal("\"([^\"]*)\"");
    int paths = 0;
    std::string line;
    while (std::getline(in, line)) {
        if (line.find("inline constexpr") == std::string::npos && line.find("\"/") == std::string::npos) continue;
        for (std::sregex_iterator it(line.begin(), line.end(), literal), end; it != end; ++it) {
            const std::string path = (*it)[1];
            ++paths;
            EXPECT_EQ(path.front(), '/') << line;
            EXPECT_EQ(path.find("//"), std::string::npos) << line;
            EXPECT_EQ(path.find("/./"), std::string::npos) << line;
            EXPECT_EQ(path.find("/.."), std::string::npos) << line;
            EXPECT_EQ(path.find_first_of(" \t\n"), std::string::npos) << line;
        }
    }
    EXPECT_GT(paths, 50);
}

// Device paths live in the table and nowhere else above the platform layer.
TEST_F(PathsTest, NoDevicePathIsSpelledOutsideTheTable) {
    const std::filesystem::path source(TARNIS_SOURCE_DIR);
    std::vector<std::string> found;
    for (const char* area : {"framework", "service", "main", "modules", "tools", "utils"}) {
        if (!std::filesystem::is_directory(source / area)) continue;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(source / area)) {
            const std::filesystem::path& file = entry.path();
            if (!entry.is_regular_file() || (file.extension() != ".cpp" && file.extension() != ".h")) continue;
            if (file == source / "utils/Paths.h") continue;
            for (const std::string& hit : InlineDevicePaths(file)) found.push_back(hit);
        }
    }
    std::string report;
    for (const std::string& hit : found) report += hit + "\n";
    EXPECT_TRUE(found.empty()) << "device paths spelled outside utils/Paths.h:\n" << report;
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
