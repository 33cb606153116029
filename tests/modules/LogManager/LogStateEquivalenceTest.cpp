#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include "framework/FileEventListener.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/LogManager/LogManager.h"
#include "tests/support/FwRecording.h"
#include "tests/support/ModuleTest.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"
#include "utils/FileUtil.h"

namespace {

using android::base::WriteStringToFile;
using velmar::kolto::FileUtil;
using velmar::kolto::LogManager;
using velmar::kolto::TarnisHandler;
using velmar::kolto::TarnisHandlerThread;

constexpr char kBsp[] = "/data/nuvilog/bsp";
constexpr char kTag[] = "Tarnis-LogManager";
constexpr std::chrono::seconds kBound(20);

// A log manager on a thread of its own, given a configuration of one record.
class Manager {
public:
    Manager(const std::string& configFile, const std::string& record, bool measureFully)
        : thread_(TarnisHandlerThread::create("LogManagerEq")),
          marker_(std::make_unique<TarnisHandler>(thread_->getLooper(), nullptr)),
          manager_(std::make_unique<LogManager>()) {
        EXPECT_TRUE(WriteStringToFile("[" + record + "]", configFile));
        manager_->name = "LogManager";
        manager_->handlerThread = thread_;
        manager_->MeasureFullyForTesting(measureFully);
        manager_->OnAllModulesLoaded();
        Drain();
    }
    ~Manager() {
        manager_.reset();  // its listener may post here until it is gone
        Drain();
        marker_.reset();
        delete thread_;
    }
    LogManager& manager() { return *manager_; }
    TarnisHandler& marker() { return *marker_; }
    // Once it returns, the thread has run everything posted before.
    void Drain() {
        auto done = std::make_shared<std::promise<void>>();
        marker_->postDelayed([done] { done->set_value(); }, 0);
        EXPECT_EQ(done->get_future().wait_for(kBound), std::future_status::ready) << "the manager's thread is stuck";
    }

private:
    TarnisHandlerThread* thread_;
    std::unique_ptr<TarnisHandler> marker_;
    std::unique_ptr<LogManager> manager_;
};

// The bytes at or below `path` as the log manager counts them: files and directories only.
int64_t Bytes(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return -1;
    int64_t sum = S_ISREG(st.st_mode) || S_ISDIR(st.st_mode) ? st.st_size : 0;
    for (const std::string& name : S_ISDIR(st.st_mode) ? tarnis_test::ListDir(path) : std::vector<std::string>()) {
        sum += Bytes(path + "/" + name);
    }
    return sum;
}

class LogStateEquivalenceTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        for (const char* dir : {kBsp, "/sdcard", "/system_ext/etc/tarnsys"}) {
            ASSERT_EQ(system(("mkdir -p '" + Device(dir) + "'").c_str()), 0);
        }
    }
    std::unique_ptr<Manager> Start(const std::string& dir, const std::string& members, bool measureFully) {
        const std::string record = "{\"folderPath\":\"" + dir + "\"," + members + "}";
        return std::make_unique<Manager>(Device("/system_ext/etc/tarnsys/log_config.json"), record, measureFully);
    }
    // Lets the held manager go and waits for the check an entry of `dir` started.
    void RunCheck(Manager& manager, tarnis_test::LooperBlocker& hold, const std::string& dir) {
        const std::string line = "[operator()] CheckAndClean " + dir;
        const size_t before = log_.Count(line, kTag);
        hold.Release();
        ASSERT_TRUE(tarnis_test::WaitFor([&] { return log_.Count(line, kTag) > before; }));
        manager.Drain();
    }
    // Each entry of `dir` as "name bytes".
    std::vector<std::string> Listing(const std::string& dir) {
        std::vector<std::string> out;
        for (const std::string& name : tarnis_test::ListDir(Device(dir))) {
            out.push_back(name + " " + std::to_string(Bytes(Device(dir) + "/" + name)));
        }
        return out;
    }
    // What the checks of `dir` decided, as their lines say, and the size reports so far.
    std::vector<std::string> Decisions(const platform::LogCapture& lines, const std::string& dir) {
        static const char* kDecisive[] = {"Clean Start", "[DeleteFileUpdateDirConfig]", "Compress",
                                          "is clean",    "is empty",                    "update pathSizeMap"};
        std::vector<std::string> out;
        for (const platform::LogLine& line : lines.Lines()) {
            if (std::any_of(std::begin(kDecisive), std::end(kDecisive),
                            [&](const char* piece) { return line.text.find(piece) != std::string::npos; })) {
                out.push_back(android::base::StringReplace(line.text, dir, "<dir>", true));
            }
        }
        for (const Json::Value& event : JournalEvents()) {
            const std::string payload = event["args"][2].asString();
            if (payload.find(dir + "\"") != std::string::npos) {
                out.push_back(android::base::StringReplace(payload, dir, "<dir>", true));
            }
        }
        return out;
    }
};

// One manager going by what it keeps, one reading in full at every check, on the same random histories in two
// identical directories: the same entries removed and packed for the same reasons, the same trees left.
TEST_F(LogStateEquivalenceTest, KeptStateDecidesAsAFullReadingWould) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        const auto pick = [&rng](int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng); };
        const auto bytes = [&](int most) { return std::string(pick(0, most), static_cast<char>('a' + pick(0, 25))); };
        // Within the two months before the test clock's 2026-01-01, in no order.
        const auto dated = [&] {
            char name[32];
            snprintf(name, sizeof(name), "2025-%02d-%02d_%02d-%02d-%02d", pick(11, 12), pick(1, 30), pick(0, 23),
                     pick(0, 59), pick(0, 59));
            return std::string(name);
        };
        const int count = pick(0, 1) ? pick(4, 10) : 0, size = pick(0, 1) ? pick(20, 60) : 0;
        const int days = pick(0, 1) ? pick(15, 40) : 0;
        const std::string members = std::string("\"compress\":") + (pick(0, 1) ? "true" : "false") +
                                    ",\"maxLogNumber\":" + std::to_string(count + size + days == 0 ? 6 : count) +
                                    ",\"maxSize\":" + std::to_string(size) + ",\"maxValidDay\":" + std::to_string(days);
        const std::string dirs[2] = {std::string(kBsp) + "/eq_kept_" + std::to_string(seed),
                                     std::string(kBsp) + "/eq_full_" + std::to_string(seed)};
        // Each step is done alike in both directories.
        std::vector<std::function<void(const std::string&)>> steps;
        const auto apply = [&] {
            for (const auto& step : steps) {
                for (const std::string& dir : dirs) step(Device(dir));
            }
            steps.clear();
        };
        const auto addEntry = [&](const std::string& name) {
            const int kind = pick(0, 19);
            const std::string a = bytes(5000), b = pick(0, 1) ? bytes(3000) : "";
            steps.push_back([=](const std::string& dir) {
                const std::string path = dir + "/" + name;
                if (kind < 13) {
                    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
                    ASSERT_TRUE(WriteStringToFile(a, path + "/main.log"));
                    ASSERT_TRUE(b.empty() || WriteStringToFile(b, path + "/kernel.log"));
                } else if (kind < 17) {
                    ASSERT_TRUE(WriteStringToFile(a, path));
                } else {
                    ASSERT_EQ(kind < 19 ? mkfifo(path.c_str(), 0644) : symlink("../../elsewhere", path.c_str()), 0);
                }
            });
        };
        for (int i = pick(2, 5); i > 0; --i) addEntry(dated());
        for (const std::string& dir : dirs) ASSERT_EQ(mkdir(Device(dir).c_str(), 0777), 0);
        apply();
        std::unique_ptr<Manager> managers[2] = {Start(dirs[0], members, false), Start(dirs[1], members, true)};
        std::string previous;
        for (int round = 0; round < 12; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            const std::vector<std::string> listing = Listing(dirs[0]);
            ASSERT_EQ(listing, Listing(dirs[1]));
            std::vector<std::string> entries;
            for (const std::string& line : listing) entries.push_back(line.substr(0, line.find(' ')));
            // Another process removes an entry, grows the two newest and the last made, drops an archive in.
            if (!entries.empty() && pick(0, 3) == 0) {
                const std::string gone = entries[static_cast<size_t>(pick(0, static_cast<int>(entries.size()) - 1))];
                steps.push_back([=](const std::string& dir) { FileUtil::DeleteDirectoryOrFile(dir + "/" + gone, 0); });
            }
            std::vector<std::string> growing(entries.end() - std::min<size_t>(2, entries.size()), entries.end());
            if (!previous.empty()) growing.push_back(previous);
            for (const std::string& name : growing) {
                const std::string more = bytes(4000), file = name + "/more" + std::to_string(round) + ".log";
                steps.push_back([=](const std::string& dir) {
                    if (FileUtil::IsDirectory(dir + "/" + name)) WriteStringToFile(more, dir + "/" + file);
                });
            }
            if (pick(0, 4) == 0) {
                const std::string zip = dated() + ".zip", content = bytes(3000);
                steps.push_back([=](const std::string& dir) { WriteStringToFile(content, dir + "/" + zip); });
            }
            addEntry(previous = dated());
            clock_.Advance(15000);
            // Both have the whole step before them when they check.
            tarnis_test::LooperBlocker holds[2];
            for (int i = 0; i < 2; ++i) holds[i].Block(managers[i]->marker());
            apply();
            std::vector<std::string> decisions[2];
            for (int i = 0; i < 2; ++i) {
                platform::LogCapture lines;
                RunCheck(*managers[i], holds[i], dirs[i]);
                decisions[i] = Decisions(lines, dirs[i]);
            }
            EXPECT_EQ(decisions[0], decisions[1]);
        }
        ASSERT_EQ(Listing(dirs[0]), Listing(dirs[1]));
    }
}

// A listener held while the kernel's queue overflows hears of it once; told of lost events, the log manager reads
// in full at its next check and so sees what no event reported (a file added to an old entry).
TEST_F(LogStateEquivalenceTest, LostEventsLeadToAFullReading) {
    std::string text;
    ASSERT_TRUE(android::base::ReadFileToString("/proc/sys/fs/inotify/max_queued_events", &text));
    const int queue = std::stoi(text);
    if (queue > 200000) GTEST_SKIP() << "a queue of " << queue << " events takes too long to fill";
    struct Held : velmar::kolto::FileEventListener {
        Held() : FileEventListener("HeldListener", {}, 0) {}
        ~Held() override { stop(); }
        void OnFileEvent(uint32_t, std::optional<std::string>, const std::string&) override { go.wait(); }
        void OnQueueOverflow() override { ++overflows; }
        std::shared_future<void> go;
        std::atomic<int> overflows{0};
    };
    std::promise<void> letGo;
    auto held = std::make_unique<Held>();
    held->go = letGo.get_future().share();
    ASSERT_EQ(held->addWatching(root_.path(), IN_CREATE | IN_DELETE), 0);
    // Past the queue's end by more than was read before the first event was handed over.
    for (int i = 0; i < queue / 2 + 100; ++i) {
        ASSERT_TRUE(WriteStringToFile("", root_.Sub("f")));
        ASSERT_EQ(unlink(root_.Sub("f").c_str()), 0);
    }
    letGo.set_value();
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return held->overflows.load() == 1; }));
    held.reset();

    const std::string dir = std::string(kBsp) + "/lost";
    for (int day = 1; day <= 4; ++day) {
        const std::string entry = Device(dir) + "/2025-12-0" + std::to_string(day);
        ASSERT_EQ(system(("mkdir -p " + entry).c_str()), 0);
        ASSERT_TRUE(WriteStringToFile("x", entry + "/log"));
    }
    std::unique_ptr<Manager> manager = Start(dir, "\"maxLogNumber\":50", false);
    // The size map's total at the check of a new entry, less what the entries hold.
    const auto check = [&](int day) {
        tarnis_test::LooperBlocker hold;
        hold.Block(manager->marker());
        EXPECT_EQ(mkdir((Device(dir) + "/2025-12-" + std::to_string(day)).c_str(), 0755), 0);
        RunCheck(*manager, hold, dir);
        const std::string prefix = "[updatePathSizeMap] update pathSizeMap for " + dir + ", totalSize: ";
        const std::vector<platform::LogLine> lines = log_.Lines();
        auto last = std::find_if(lines.rbegin(), lines.rend(), [&](auto& l) { return l.text.rfind(prefix, 0) == 0; });
        int64_t difference = last == lines.rend() ? -1 : std::stoll(last->text.substr(prefix.size()));
        for (const std::string& name : tarnis_test::ListDir(Device(dir))) {
            difference -= Bytes(Device(dir) + "/" + name);
        }
        return difference;
    };
    EXPECT_EQ(check(10), 0);  // the first check after the watch is a full reading
    ASSERT_TRUE(WriteStringToFile(std::string(10000, 'o'), Device(dir) + "/2025-12-01/late.log"));
    EXPECT_EQ(check(11), -10000);
    manager->manager().OnEventsLost();
    EXPECT_EQ(check(12), 0);
}

}  // namespace
