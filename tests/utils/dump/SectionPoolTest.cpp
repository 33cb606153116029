// GCC 12 warns falsely inside <regex> under the sanitizers' optimisation.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include "utils/dump/SectionPool.h"

#include <unistd.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/DumpSandbox.h"
#include "tests/support/WaitFor.h"

namespace tarnis_test {
namespace {

using android::SectionPool;

class SectionPoolTest : public CaptureSandboxTest {
protected:
    void TearDown() override {
        SectionPool::SetWorkersForTesting(0);
        CaptureSandboxTest::TearDown();
    }
};

void Write(int fd, const std::string& text) { ASSERT_EQ(write(fd, text.data(), text.size()), ssize_t(text.size())); }

TEST_F(SectionPoolTest, SectionsRunTogetherAndAreAppendedInTheOrderAsked) {
    SectionPool::SetWorkersForTesting(4);
    const std::string path = Make("/data/dorva/cap", "header\n");
    android::base::unique_fd out(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    android::base::unique_fd dir(open(Path("/data/dorva").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::atomic<bool> lastStarted{false};
    std::atomic<bool> firstSawLast{false};
    std::vector<std::pair<size_t, size_t>> progress;
    SectionPool pool(out.get(), dir.get());
    // The first section ends only once the last has begun: it finishes
    // last and still comes first.
    pool.Add([&](int fd) {
        firstSawLast = WaitFor([&] { return lastStarted.load(); }, std::chrono::seconds(10));
        Write(fd, "one\n");
    });
    for (const char* text : {"two\n", "three\n", "four\n"}) pool.Add([text](int fd) { Write(fd, text); });
    pool.Add([&](int fd) {
        lastStarted = true;
        Write(fd, std::string(200000, 'x') + "\n");
    });
    // Heard after each append, and repeated while the first is awaited.
    pool.Run([&](size_t done, size_t total) {
        if (done > (progress.empty() ? 0 : progress.back().first)) progress.emplace_back(done, total);
    });
    EXPECT_TRUE(firstSawLast);
    EXPECT_EQ(ReadFile(path), "header\none\ntwo\nthree\nfour\n" + std::string(200000, 'x') + "\n");
    EXPECT_EQ(progress, (std::vector<std::pair<size_t, size_t>>{{1, 5}, {2, 5}, {3, 5}, {4, 5}, {5, 5}}));
    // The buffers were unnamed: nothing is left beside the capture.
    EXPECT_EQ(Names("/data/dorva"), "cap\n");

    // One worker: the caller runs each section straight into the capture.
    SectionPool::SetWorkersForTesting(1);
    SectionPool alone(out.get(), dir.get());
    const std::thread::id caller = std::this_thread::get_id();
    for (int i = 0; i < 2; ++i) alone.Add([&](int fd) { Write(fd, std::this_thread::get_id() == caller ? "c" : "w"); });
    alone.Run();
    EXPECT_EQ(ReadFile(path).substr(ReadFile(path).size() - 2), "cc");
}

// What a capture's tools write reads the same run together as one after another; only the measured times and
// the children's pids differ. A tool off the whitelist runs in neither.
TEST_F(SectionPoolTest, ACaptureReadsTheSameRunTogetherAsInTurn) {
    MakeDirs({"/data/dorva"});
    const std::string a = Make("/data/in/a", "alpha\n");
    const std::string b = Make("/data/in/b", std::string(100000, 'b') + "\n");
    const auto capture = [&](size_t workers, const char* name) {
        SectionPool::SetWorkersForTesting(workers);
        const std::string device = std::string("/data/dorva/") + name;
        android::CaptureLogUtil::dump_by_power(List({"cat", "getprop", "cat", "rm", "cat"}),
                                               List({a.c_str(), "ro.none", b.c_str(), "-rf,/", "/data/in/none"}),
                                               device.c_str(), 5);
        const std::regex varying("[0-9]+\\.[0-9]+s elapsed|(Exit code [0-9]+), [0-9]+");
        return std::regex_replace(ReadFile(Path(device)), varying, "$1");
    };
    const std::string inTurn = capture(1, "in_turn");
    EXPECT_EQ(capture(4, "together"), inTurn);
    EXPECT_NE(inTurn.find("alpha\n"), std::string::npos);
    EXPECT_LT(inTurn.find("alpha\n"), inTurn.find(std::string(100000, 'b')));
    EXPECT_NE(inTurn.find("Exit code 1"), std::string::npos);
    EXPECT_NE(inTurn.find("------ (cat " + a + ") in 5s ------\nalpha\n"), std::string::npos) << inTurn;
    EXPECT_EQ(inTurn.find("(rm"), std::string::npos) << inTurn;
    EXPECT_EQ(CountExact(log_, "dump_by_power: action 'rm' not in SUPPORT_ACTION whitelist, skipping", "dorvad"), 2u);
    EXPECT_TRUE(Logged(log_, "dump begin path=" + Path("/data/dorva/in_turn") + " (cat " + a + ")"));
}

}  // namespace
}  // namespace tarnis_test
