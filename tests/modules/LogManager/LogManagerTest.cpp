#include <fcntl.h>
#include <signal.h>
#include <linux/fs.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/scopeguard.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <android/binder_manager.h>
#include <dorva/DorvaServiceManager.h>
#include <log/log.h>

#include "framework/FileEventListener.h"
#include "framework/Intent.h"
#include "framework/InternalBroadcastManager.h"
#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"
#include "framework/TarnisLooperManager.h"
#include "modules/LogManager/LogConfig.h"
#include "modules/LogManager/LogManager.h"
#include "modules/LogManager/LogManagerUtil.h"
#include "platform/binder/ServiceManager.h"
#include "tests/support/Bytes.h"
#include "tests/support/FwRecording.h"
#include "tests/support/LogLines.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/RecordingPeer.h"
#include "tests/support/WaitFor.h"
#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"

namespace {

using android::base::WriteStringToFile;
using velmar::kolto::FileUtil;
using velmar::kolto::JsonUtil;
using velmar::kolto::LogConfig;
using velmar::kolto::LogManager;
using velmar::kolto::LogManagerUtil;
using velmar::kolto::TarnisHandler;
using velmar::kolto::TarnisHandlerThread;
using velmar::kolto::TarnisLooper;
using velmar::kolto::TarnisLooperManager;

constexpr char kTag[] = "Tarnis-LogManager";
constexpr char kUtilTag[] = "Tarnis-LogManagerUtil";
const std::string kBsp = "/data/nuvilog/bsp";
constexpr int64_t kDayMs = 86400000;
constexpr std::chrono::seconds kBound(20);
constexpr int kD = ANDROID_LOG_DEBUG, kI = ANDROID_LOG_INFO, kW = ANDROID_LOG_WARN, kE = ANDROID_LOG_ERROR;

void Write(const std::string& path, const std::string& content) {
    tarnis_test::RunShell("mkdir -p \"$(dirname '" + path + "')\"");
    ASSERT_TRUE(tarnis_test::WriteFile(path, content));
}

using Names = std::vector<std::string>;
using tarnis_test::Exists;
Names List(const std::string& dir) { return tarnis_test::ListDir(dir); }

std::string Dated(int i) { return "2025-11-23_10-00-0" + std::to_string(i); }
std::vector<std::string> Dated(std::initializer_list<int> numbers) {
    std::vector<std::string> names;
    for (int i : numbers) names.push_back(Dated(i));
    return names;
}

int64_t StatSize(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st.st_size;
}

class LogManagerTest : public tarnis_test::ModBModuleTest {
protected:
    // This end holds the system internal service, so what the module sends across reaches the vendor peer.
    void SetUp() override {
        ModBModuleTest::SetUp();
        ASSERT_EQ(AServiceManager_addService(peer_->asBinder().get(), kPeer.c_str()), STATUS_OK);
    }
    void TearDown() override {
        known_.clear();
        android::ServiceManager::instance().removeService(kPeer);
        ModBModuleTest::TearDown();
    }
    bool Logged(int prio, const std::string& text) { return log_.HasLine(text, kTag, prio); }

    // Entries go to a staged log root, renamed in once the module waits for it: the listener never idles.
    std::string Staged(const std::string& relative) const { return Device(kBsp) + ".stage/" + relative; }
    std::string Bsp(const std::string& relative) const { return Device(kBsp) + "/" + relative; }

    void Start(const std::string& config) {
        Write(Device("/system_ext/etc/tarnsys/log_config.json"), config);
        LoadModules();
        ASSERT_TRUE(Logged(kI, "[CheckLogDirReady] log dir not ready, schedule next check in 30s later"));
        for (const auto& looper : TarnisLooperManager::getInstance().loopers()) known_.push_back(looper);
        ASSERT_EQ(system(("mkdir -p '" + Staged("") + "'").c_str()), 0);
        ASSERT_EQ(rename(Staged("").c_str(), Device(kBsp).c_str()), 0);
        Advance(30000);
        ASSERT_TRUE(Logged(kI, "[CheckLogDirReady] log dir is Ready, init config now!"));
    }

    // As WaitIdle, over the loopers there were before the listener.
    void Settle() {
        const auto snapshot = [this](std::vector<uint64_t>* counts) {
            counts->clear();
            for (const auto& looper : known_) {
                if (!looper->hasEnded() && !looper->isIdle()) return false;
                counts->push_back(looper->dispatched());
            }
            return true;
        };
        std::vector<uint64_t> first, second;
        ASSERT_TRUE(tarnis_test::WaitFor([&] {
            if (!snapshot(&first)) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            return snapshot(&second) && first == second;
        })) << "threads still busy";
    }
    void Advance(int64_t ms) {
        clock_.Advance(ms);
        Settle();
    }

    // Until the check of `dir` (below the log root unless absolute) ran `count` times in all, and what it posted.
    void WaitChecks(const std::string& dir, size_t count) {
        const std::string line = "[operator()] CheckAndClean " + (dir[0] == '/' ? dir : kBsp + "/" + dir);
        ASSERT_TRUE(tarnis_test::WaitFor([&] { return log_.Count(line, kTag) >= count; })) << line;
        Settle();
    }

    // The module's quality-service reports as sent: the compact writer's text, closing newline and all.
    std::vector<std::string> Reports() {
        std::vector<std::string> texts;
        TrelvoPayloads("52000178316", "Tarnis.LogManager", &texts);
        return texts;
    }

    std::vector<Json::Value> Announced() {
        std::lock_guard<std::mutex> guard(peer_->lock);
        std::vector<Json::Value> out;
        for (const auto& [action, json] : peer_->got) {
            EXPECT_EQ(action, "velmar.tarnis.logmgr.config_changed");
            Json::Value root;
            EXPECT_TRUE(Json::Reader().parse(json, root)) << json;
            out.push_back(root["extras"][0]["value"]);
        }
        return out;
    }

    const std::string kPeer = std::string(tarnis_test::RecordingPeer::descriptor) + "/default";
    const std::shared_ptr<tarnis_test::RecordingPeer> peer_ = ndk::SharedRefBase::make<tarnis_test::RecordingPeer>();
    std::vector<std::shared_ptr<TarnisLooper>> known_;
};

std::string Record(const std::string& name, const std::string& members) {
    return "{\"folderName\":\"" + name + "\"" + (members.empty() ? "" : "," + members) + "}";
}

TEST_F(LogManagerTest, CountLimitKeepsTheNewestAtStartAndOnEachNewEntry) {
    for (int i = 1; i <= 5; ++i) Write(Staged("demo_count/" + Dated(i) + "/log"), "x");
    // Left by a compression killed with the daemon: swept at the first check.
    Write(Staged("demo_count/.tarnis-tmp.2025-11-23_10-00-00.zip.left0ver00"), std::string(100, 'z'));
    const int64_t oldest = StatSize(Staged("demo_count/" + Dated(1))) + 1;
    Start("[" + Record("demo_count", "\"maxLogNumber\":3") + "]");
    EXPECT_EQ(List(Bsp("demo_count")), Dated({3, 4, 5}));

    // One being written now is not an entry: counted, it would be the oldest of four and go.
    const std::string writing = ".tarnis-tmp.2025-11-23_10-00-05.zip.writing000";
    Write(Bsp("demo_count/" + writing), "z");
    ASSERT_EQ(mkdir(Bsp("demo_count/" + Dated(6)).c_str(), 0755), 0);
    WaitChecks("demo_count", 1);
    EXPECT_EQ(List(Bsp("demo_count")), (Names{writing, Dated(4), Dated(5), Dated(6)}));
    EXPECT_TRUE(Logged(kI, "[DeleteFileUpdateDirConfig] DeleteDirectoryOrFile succeed, removed size " +
                               std::to_string(oldest) + " bytes (0 MB)"));
}

TEST_F(LogManagerTest, DumpListsEachDirectoryAndMeasuresTracesAgain) {
    Write(Staged("demo_dump/" + Dated(1)), std::string(1500, 'a'));
    Write(Device("/data/local/traces/t1"), std::string(100, 't'));
    Start("[" + Record("demo_dump", "\"maxLogNumber\":3") + "," +
          "{\"folderPath\":\"/data/local/traces\",\"maxLogNumber\":50}]");
    // Written behind the map's back (no check runs for a file that grows).
    Write(Device("/data/local/traces/t1"), std::string(2048, 't'));

    const std::string dump = Dump({"LogManager"});
    EXPECT_NE(dump.find("LogManager System Dump:\nPath Sizes:\n/data/local/traces: 2.00 KB\n" + kBsp + "/demo_dump: " +
                        FileUtil::formatHumanSize(1500) + "\n"), std::string::npos) << dump;
    EXPECT_TRUE(Logged(kI, "[dump] Path0: /data/local/traces, Size: 2.00 KB"));
    EXPECT_TRUE(Logged(kI, "[dump] Path: " + kBsp + "/demo_dump, Size: " + FileUtil::formatHumanSize(1500)));
}

TEST_F(LogManagerTest, SizeLimitDeletesOldestFirstAndReportsBeforeAndAfter) {
    std::vector<int64_t> sizes;
    for (int i = 1; i <= 5; ++i) {
        const std::string dir = Staged("demo_size/" + Dated(i));
        Write(dir + "/log", std::string(3000, 'a' + i));
        sizes.push_back(StatSize(dir) + StatSize(dir + "/log"));
    }
    const int64_t before = std::accumulate(sizes.begin(), sizes.end(), int64_t{0});
    // Oldest first until the rest fits in 8 KiB.
    int64_t after = before;
    size_t firstKept = 0;
    while (after > 8192) after -= sizes[firstKept++];
    ASSERT_GT(firstKept, 0u);

    Start("[" + Record("demo_size", "\"maxSize\":8") + "]");
    const std::vector<std::string> left = List(Bsp("demo_size"));
    ASSERT_EQ(left.size(), 5 - firstKept);
    EXPECT_EQ(left.front(), Dated(static_cast<int>(firstKept) + 1));

    EXPECT_EQ(Reports(), Names{"{\"EVENT_NAME\":\"logManage\",\"folderPath\":\"" + kBsp +
                                                  "/demo_size\",\"reuseClearSize\":0,\"reuseMoveSize\":0,"
                                                  "\"reuseOpen\":false,\"totalSize\":" + std::to_string(after) +
                                                  ",\"totalSizeBefore\":" + std::to_string(before) + "}\n"});

    // A report the service refuses is logged under the reporting operation.
    android::DorvaServiceManager::getInstance().setResultForTesting(1);
    // Grown out of sight first: the check may run before a new file's bytes are in.
    Write(Bsp("demo_size/" + left.back() + "/more"), std::string(8192, 'x'));
    ASSERT_EQ(mkdir(Bsp("demo_size/" + Dated(9)).c_str(), 0755), 0);
    const std::string refused = "[reportLogMgrEvent] Failed to connect Trelvo Binder!!";
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return Logged(kE, refused); }));
    android::DorvaServiceManager::getInstance().setResultForTesting(0);
    Settle();
}

TEST_F(LogManagerTest, AgeLimitStopsAtAnUndatedEntryAndFollowsTheInjectedClock) {
    // The clock reads 2026-01-01; ten days back is 2025-12-22.
    for (const char* name :
         {"2025-11-01_00-00-00", "2025-11-05_undated", "2025-11-10-00-00-00", "2025-12-25_00-00-00"}) {
        Write(Staged(std::string("demo_age/") + name), "x");
    }
    Start("[" + Record("demo_age", "\"maxValidDay\":10") + "]");
    EXPECT_EQ(List(Bsp("demo_age")), (Names{"2025-11-05_undated", "2025-11-10-00-00-00", "2025-12-25_00-00-00"}));
    // The debug lines the dating goes through are the ones users read in the log.
    EXPECT_TRUE(Logged(kD, "CompareTimeStrExpired folderName is empty"));
    EXPECT_TRUE(Logged(kD, "[matchedDate] 2025-11-01_00-00-00 find date: 2025-11-01_00-00-00 in file name"));

    // Without the undated entry, and ten days later, the dated ones age out.
    ASSERT_EQ(unlink(Bsp("demo_age/2025-11-05_undated").c_str()), 0);
    // Joined by '-', the time is not read: counted from midnight, this one is past the limit by minutes.
    Write(Bsp("demo_age/2026-01-01-00-05-00"), "x");
    clock_.SetWallMs(clock_.WallNowMs() + 10 * kDayMs);
    Write(Bsp("demo_age/2026-01-10_00-00-00"), "x");
    WaitChecks("demo_age", 2);
    EXPECT_EQ(List(Bsp("demo_age")), (Names{"2026-01-10_00-00-00"}));
}

TEST_F(LogManagerTest, TheFirstCheckFollowsEachKindOfRecord) {
    for (const char* name : {"notes.txt", "ramdump_2025-11-01_10-00-00.elf", "ramdump_modem_2025-11-01_10-00-00.elf",
                             "ramdump_modem_2025-11-2_9-0-0_x.elf", "ramdump_x_2025-11-03_10-00-00"}) {
        Write(Staged(std::string("demo_ramdump/") + name), "r");
    }
    for (int i = 1; i <= 3; ++i) {
        Write(Staged("demo_parent/a/" + Dated(i)), "a");
        Write(Staged("demo_parent/b/" + Dated(i)), "b");
    }
    Write(Staged("demo_parent/loose.txt"), "kept");
    for (const char c : {'a', 'b'}) Write(Staged(std::string("demo_push/") + c + ".log"), std::string(3000, c));
    // A limit of 0 is exceeded by any directory that is not empty.
    Write(Staged("demo_push0/c.log"), "c");
    tarnis_test::TempDir outside;
    Write(outside.Sub("secret/keep.txt"), "precious");
    Write(Staged("demo_link/2025-12-01_00-00-00/log"), "ours");
    for (const char* link : {"demo_link/2025-01-01_link", "demo_link/2025-06-01_link"}) {
        ASSERT_EQ(symlink(outside.Sub("secret").c_str(), Staged(link).c_str()), 0);
    }
    const std::string children =
            "[" + Record("a", "\"maxLogNumber\":1") + "," + Record("b", "\"maxLogNumber\":2") + "]";
    Start("[" + Record("demo_ramdump", "\"maxLogNumber\":1,\"watchSSRRamdumpHack\":true") + "," +
          Record("demo_parent", "\"maxLogNumber\":1,\"children\":" + children) + "," +
          Record("demo_push", "\"pushEventOnly\":true,\"maxSize\":4,\"maxLogNumber\":1") + "," +
          Record("demo_push0", "\"pushEventOnly\":true,\"maxSize\":0") + "," +
          Record("demo_link", "\"maxLogNumber\":2,\"compress\":true") + "]");

    // Ramdump directories count only dated dump names.
    EXPECT_EQ(List(Bsp("demo_ramdump")), (Names{"notes.txt", "ramdump_2025-11-01_10-00-00.elf",
                                                "ramdump_modem_2025-11-2_9-0-0_x.elf",
                                                "ramdump_x_2025-11-03_10-00-00"}));
    EXPECT_TRUE(Logged(kD, "[CheckAndClean] OldRamdumpFileFormatHack: fileName notes.txt not matched regex, skip!"));

    // A record with children is cleaned only through them.
    EXPECT_EQ(List(Bsp("demo_parent/a")), Dated({3}));
    EXPECT_EQ(List(Bsp("demo_parent/b")), Dated({2, 3}));
    EXPECT_EQ(List(Bsp("demo_parent")), (Names{"a", "b", "loose.txt"}));
    EXPECT_TRUE(Logged(kD, "[CheckAndClean] found children items, ignore master folder clean"));

    // pushEventOnly reports a directory over its size and deletes nothing.
    EXPECT_EQ(List(Bsp("demo_push")).size(), 2u);
    Names reports = Reports();
    std::sort(reports.begin(), reports.end());
    const std::string event = "{\"EVENT_NAME\":\"logMonitor\",\"dirSize\":";
    EXPECT_EQ(reports, (Names{event + "1,\"folderPath\":\"" + kBsp + "/demo_push0\"}\n",
                              event + "6000,\"folderPath\":\"" + kBsp + "/demo_push\"}\n"}));

    // Links out of the tree are neither followed nor packed.
    EXPECT_EQ(tarnis_test::ReadFile(outside.Sub("secret/keep.txt")), "precious");
    EXPECT_EQ(List(outside.Sub("secret")), (Names{"keep.txt"}));
    EXPECT_EQ(List(Bsp("demo_link")), (Names{"2025-06-01_link", "2025-12-01_00-00-00.zip"}));
    EXPECT_TRUE(Logged(kW, "[CheckAndClean] Only directory with date named is allowed, but unknown file "
                           "2025-06-01_link was detected!!"));
    // The size map measures as getDirTotalSize does: prefixed, at info level.
    EXPECT_TRUE(Logged(kI, "[getDirTotalSize] CheckAndClean: Only directory with date named is allowed, but "
                           "unknown file 2025-06-01_link was detected!!"));
}

TEST_F(LogManagerTest, CompressionPacksAllButTheNewestWithoutStartingAnotherCheck) {
    Start("[" + Record("demo_zip", "\"compress\":true,\"maxLogNumber\":5") + "]");
    const std::string start = "[CheckAndClean] Start Checking " + kBsp + "/demo_zip";
    ASSERT_EQ(log_.Count(start, kTag), 1u);
    for (int i = 1; i <= 3; ++i) {
        const std::string entry = Bsp("demo_zip/" + Dated(i));
        ASSERT_EQ(mkdir(entry.c_str(), 0755), 0);
        Write(entry + "/log", std::string(5000, 'a' + i));
        WaitChecks("demo_zip", static_cast<size_t>(i));
    }
    // Time for a stray event from the archives to arrive.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Settle();
    EXPECT_EQ(log_.Count(start, kTag), 4u);
    EXPECT_EQ(List(Bsp("demo_zip")), (Names{Dated(1) + ".zip", Dated(2) + ".zip", Dated(3)}));
    for (int i = 1; i <= 2; ++i) {
        // Read back with every CRC checked: the last member is the entry's log, whole, under its device path.
        const std::string archive = Bsp("demo_zip/" + Dated(i) + ".zip");
        EXPECT_EQ(tarnis_test::RunShell("python3 -c 'import sys,zipfile; z=zipfile.ZipFile(sys.argv[1]); "
                                        "assert z.testzip() is None; n=z.namelist()[-1]; print(len(z.read(n)), n)' '" +
                                        archive + "'"),
                  "5000 " + kBsp.substr(1) + "/demo_zip/" + Dated(i) + "/log\n");
        EXPECT_EQ(tarnis_test::ModeOf(archive), S_IFREG | 0775u);
    }
}

TEST_F(LogManagerTest, DelayedCompressionWaitsForTheClockOrTheNextEntry) {
    Start("[" + Record("demo_delay", "\"compress\":true,\"compressLatestAfterSec\":60,\"maxLogNumber\":9") + "]");
    const auto entry = [this](int i) { return Bsp("demo_delay/" + Dated(i)); };
    const auto zip = [](int i) { return Dated(i) + ".zip"; };
    ASSERT_EQ(mkdir(entry(1).c_str(), 0755), 0);
    WaitChecks("demo_delay", 1);
    Advance(59000);
    EXPECT_EQ(List(Bsp("demo_delay")), Dated({1}));
    Advance(1000);
    EXPECT_TRUE(Logged(kI, "[operator()] delayed compress task running for " + entry(1)));
    EXPECT_EQ(List(Bsp("demo_delay")), Names{zip(1)});

    // A newer entry brings the pending one forward at once.
    ASSERT_EQ(mkdir(entry(2).c_str(), 0755), 0);
    WaitChecks("demo_delay", 2);
    ASSERT_EQ(mkdir(entry(3).c_str(), 0755), 0);
    WaitChecks("demo_delay", 3);
    EXPECT_TRUE(log_.HasLine("[CheckAndClean] Last delay compress is not trigger, trigger it directly", kTag));
    EXPECT_TRUE(Logged(kI, "[operator()] delayed compress task running for " + entry(2)));
    EXPECT_EQ(List(Bsp("demo_delay")), (Names{zip(1), zip(2), Dated(3)}));
    Advance(60000);
    EXPECT_EQ(List(Bsp("demo_delay")), (Names{zip(1), zip(2), zip(3)}));
}

TEST_F(LogManagerTest, LimitsOverByWhatCannotBeRemovedEndTheCheckWithoutCompressionOrReport) {
    Write(Staged("demo_stuck/" + Dated(1)), std::string(4096, 's'));
    const android::base::unique_fd fd(open(Staged("demo_stuck/" + Dated(1)).c_str(), O_RDONLY | O_CLOEXEC));
    int flags = FS_IMMUTABLE_FL;
    if (!fd.ok() || ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) != 0) GTEST_SKIP() << "no immutable files here";
    // Removable again however the test ends, or the sandbox could not go.
    const auto release = android::base::make_scope_guard([&fd] {
        int none = 0;
        ioctl(fd.get(), FS_IOC_SETFLAGS, &none);
    });
    Start("[" + Record("demo_stuck", "\"maxSize\":1,\"compress\":true") + "]");
    EXPECT_TRUE(Logged(kD, "[CheckAndClean] " + kBsp + "/demo_stuck is clean, should not enter clean loop again!"));
    EXPECT_EQ(List(Bsp("demo_stuck")), Dated({1}));
    EXPECT_TRUE(Reports().empty());
}

TEST_F(LogManagerTest, ReusePartitionTakesWhatFitsAndAnOversizedEntryEndsTheCleaning) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.abreuse.abstatus", "true"));
    Write(Staged("demo_reuse/2025-12-01_00-00-00"), std::string(20000, 'o'));
    Write(Staged("demo_reuse/2025-12-02_00-00-00"), std::string(3000, '2'));
    Write(Staged("demo_reuse/2025-12-03_00-00-00"), std::string(3000, '3'));
    Start("[" + Record("demo_reuse", "\"maxLogNumber\":1,\"reuseMaxSize\":8") + "]");
    const std::string reuse = Device("/mnt/reuse/bsplog/demo_reuse");
    EXPECT_TRUE(Logged(kI, "[CheckAndClean] Log 2025-12-01_00-00-00 size is too large to move file."));
    EXPECT_FALSE(Exists(reuse + "/2025-12-01_00-00-00"));
    EXPECT_EQ(List(Bsp("demo_reuse")), (Names{"2025-12-02_00-00-00", "2025-12-03_00-00-00"}));

    Write(Bsp("demo_reuse/2025-12-04_00-00-00"), std::string(3000, '4'));
    WaitChecks("demo_reuse", 1);
    EXPECT_EQ(List(Bsp("demo_reuse")), (Names{"2025-12-04_00-00-00"}));
    EXPECT_EQ(tarnis_test::ReadFile(reuse + "/2025-12-02_00-00-00"), std::string(3000, '2'));
    EXPECT_EQ(tarnis_test::ReadFile(reuse + "/2025-12-03_00-00-00"), std::string(3000, '3'));
    // Read at the check's start, before each reuse deletion step and each copy.
    EXPECT_EQ(log_.Count("[CheckAndClean] isReuseOpen 1", kTag), 6u);
    EXPECT_TRUE(Logged(kI, "[CheckAndClean] Move file " + kBsp + "/demo_reuse/2025-12-02_00-00-00 to A/B reused "
                           "partition /mnt/reuse/bsplog/demo_reuse/2025-12-02_00-00-00 succeed, moved size 3000 "
                           "bytes."));

    // Full: the oldest copy makes room for the next one.
    Write(Bsp("demo_reuse/2025-12-05_00-00-00"), std::string(3000, '5'));
    WaitChecks("demo_reuse", 2);
    EXPECT_TRUE(log_.HasLine("[CheckAndClean] Start delete A/B reused partition file: 2025-12-02_00-00-00", kTag));
    EXPECT_EQ(List(reuse), (Names{"2025-12-03_00-00-00", "2025-12-04_00-00-00"}));
}

TEST_F(LogManagerTest, CompressionOnAFullDiskKeepsTheEntryAndLeavesNoArchive) {
    const std::string entry = root_.Sub("full/2025-12-01_00-00-00");
    const std::string data = tarnis_test::RandomBytes(256 * 1024, 7);
    Write(entry + "/log", data);
    // The archive may not grow past 64 KiB: what a full file system does to a write.
    struct rlimit saved {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const sighandler_t previous = signal(SIGXFSZ, SIG_IGN);
    const struct rlimit small = {64 * 1024, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool packed = LogManager::Compress("/full/2025-12-01_00-00-00");
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, previous);
    EXPECT_FALSE(packed) << "the compression claimed success";
    EXPECT_EQ(tarnis_test::ReadFile(entry + "/log"), data);
    EXPECT_EQ(List(root_.Sub("full")), (Names{"2025-12-01_00-00-00"}));

    ASSERT_TRUE(LogManager::Compress("/full/2025-12-01_00-00-00"));
    EXPECT_EQ(List(root_.Sub("full")), (Names{"2025-12-01_00-00-00.zip"}));
}

TEST_F(LogManagerTest, RecordsLeadingOutOfTheirRootOrPastTheirRangesAreRefusedAndTheOthersManaged) {
    tarnis_test::TempDir outside;
    ASSERT_EQ(system(("mkdir -p '" + Staged("") + "'").c_str()), 0);
    ASSERT_EQ(symlink(outside.Sub("O").c_str(), Staged("lnkparent").c_str()), 0);
    struct Case {
        std::string record, victimDir, line;
    } cases[] = {
        {Record("../victim", "\"maxLogNumber\":1"), Device("/data/nuvilog/victim"),
         "record \"../victim\": folderName \"../victim\" is not a plain name"},
        {"{\"folderPath\":\"/data/local/traces/../victim2\",\"maxLogNumber\":1}", Device("/data/local/victim2"),
         "record \"/data/local/traces/../victim2\": \"/data/local/traces/../victim2\" steps through \".\" or \"..\""},
        {"{\"folderPath\":\"/data/other\",\"maxLogNumber\":1}", Device("/data/other"),
         "record \"/data/other\": \"/data/other\" is not below a managed log root"},
        {"{\"folderPath\":\"" + kBsp + "/lnkparent/victimdir\",\"maxLogNumber\":1}",
         outside.Sub("O/victimdir"), "/lnkparent/victimdir\" passes through a symbolic link"},
        // 2^54 KiB: shifted to bytes it would wrap to a limit of 0.
        {Record("demo_wrap", "\"maxSize\":18014398509481984"), Staged("demo_wrap"),
         "record \"demo_wrap\": maxSize 18014398509481984 is out of range (at most 18014398509481983)"},
    };
    // A record that does not read at all is named, and skipped.
    std::string config = "[" + Record("demo_ok", "\"maxLogNumber\":1") + "," +
                         Record("demo_bad", "\"maxLogNumber\":\"three\"");
    for (const Case& c : cases) {
        for (int i = 1; i <= 3; ++i) Write(c.victimDir + "/" + Dated(i), "v");
        config += "," + c.record;
    }
    for (int i = 1; i <= 3; ++i) Write(Staged("demo_ok/" + Dated(i)), "x");
    Start(config + "]");
    for (Case& c : cases) {
        if (c.victimDir == Staged("demo_wrap")) c.victimDir = Bsp("demo_wrap");
        EXPECT_EQ(List(c.victimDir).size(), 3u) << c.record;
        EXPECT_TRUE(log_.Contains(c.line, kTag, kE)) << c.line;
    }
    EXPECT_EQ(List(Bsp("demo_ok")), Dated({3}));
    const std::string skipped = "record 1 \\(folderName \"demo_bad\"\\) skipped: member \"maxLogNumber\" .*";
    EXPECT_NE(tarnis_test::LineMatching(log_, "\\[initConfig\\] .*log_config\\.json.* " + skipped, kTag, kE), "");

    // Not watched through the link: events come in order, so once demo_ok's check ran, one there would have.
    Write(outside.Sub("O/victimdir/" + Dated(4)), "v");
    Write(Bsp("demo_ok/" + Dated(4)), "4");
    WaitChecks("demo_ok", 1);
    EXPECT_EQ(List(outside.Sub("O/victimdir")).size(), 4u);
    EXPECT_FALSE(log_.Contains("CheckAndClean " + kBsp + "/lnkparent", kTag));
}

TEST_F(LogManagerTest, AConfigThatIsNotJsonStopsTheModule) {
    Start("[{\"folderName\": ");
    EXPECT_TRUE(Logged(kE, "[initConfig] Config is invalid!!"));
    EXPECT_TRUE(Logged(kE, "[CheckLogDirReady] Failed to init LogManager Config! Cannot continue!"));
    EXPECT_EQ(Dump({"LogManager"}), "Module LogManager is not running\n");
}

TEST_F(LogManagerTest, TheConfigGrowsFromTheWireAndIsReadAgainOnceTheVendorIsReady) {
    Start("[" + Record("demo_first", "\"maxLogNumber\":1") + "]");
    EXPECT_TRUE(Logged(kW, "[initConfig] Vendor maybe not ready while init config"));
    ASSERT_EQ(Announced().size(), 1u);
    EXPECT_EQ(Announced()[0][0]["folderName"].asString(), "demo_first");
    // Two entries in turn, each checked: a directory kept to one keeps the second.
    const auto watched = [this](const std::string& dir) {
        for (int i = 1; i <= 2; ++i) {
            Write(Bsp(dir + "/" + Dated(i)), "x");
            WaitChecks(dir, i);
        }
        EXPECT_EQ(List(Bsp(dir)), Dated({2}));
    };

    // The form tarnisctl intent sends: value_type 0 carries a JSON value. A list is read up to its first bad record.
    velmar::kolto::InternalBroadcastManager::onTarnisIntlMessageReceived(
        "velmar.tarnis.logmgr.config_append",
        "{\"extras\":[{\"key\":\"config\",\"value_type\":0,\"value\":[" + Record("demo_added", "\"maxLogNumber\":1") +
            "," + Record("demo_bad", "\"compress\":1") + "," + Record("demo_never", "\"maxLogNumber\":1") + "]}]}");
    Settle();
    EXPECT_EQ(tarnis_test::ModeOf(Bsp("demo_added")), S_IFDIR | 0777u);
    EXPECT_FALSE(Exists(Bsp("demo_never")));
    EXPECT_TRUE(log_.HasLine("[GenerateConfigList] Failed to convert Json to valid config!", kUtilTag, kE));
    watched("demo_added");

    velmar::kolto::Intent wrong("velmar.tarnis.logmgr.config_append");
    wrong.putExtra("config", std::string("demo"));
    velmar::kolto::InternalBroadcastManager::sendBroadcast(wrong, false);
    velmar::kolto::Intent object("velmar.tarnis.logmgr.config_append");
    object.putExtra("config", std::vector<int>{42});
    velmar::kolto::InternalBroadcastManager::sendBroadcast(object, false);
    Settle();
    EXPECT_TRUE(Logged(kE, "[operator()] Intent extra is invalid for log manager!!"));
    EXPECT_TRUE(log_.Contains("[operator()] obj is not a valid LogConfig! e.what ", kTag, kE));

    Write(Device("/system_ext/etc/tarnsys/log_config.json"),
          "[" + Record("demo_first", "\"maxLogNumber\":1") + "," + Record("demo_second", "\"maxLogNumber\":1") + "]");
    log_.Clear();
    velmar::kolto::InternalBroadcastManager::sendBroadcast(
            velmar::kolto::Intent("velmar.tarnis.logmgr.vendor_is_ready"), false);
    Settle();
    EXPECT_TRUE(log_.HasLine("[onReceive] action velmar.tarnis.logmgr.vendor_is_ready", "Tarnis-onReceive", kI));
    EXPECT_TRUE(Logged(kD, "[operator()] Vendor ready!"));
    EXPECT_FALSE(Logged(kW, "[initConfig] Vendor maybe not ready while init config"));
    ASSERT_EQ(Announced().size(), 2u);
    EXPECT_EQ(Announced()[1][1]["folderName"].asString(), "demo_second");
    watched("demo_second");
}

TEST_F(LogManagerTest, AJsonConfigThatIsNotAnArrayIsAnEmptyList) {
    Start("{\"folderName\": \"demo_object\"}");
    EXPECT_FALSE(Logged(kE, "[initConfig] Config is invalid!!"));
    ASSERT_EQ(Announced().size(), 1u);
    EXPECT_EQ(Announced()[0]["folderName"].asString(), "demo_object");
    EXPECT_EQ(Dump({"LogManager"}).find("not running"), std::string::npos);
}

TEST_F(LogManagerTest, SdcardDirectoriesAreCleanedOnceTheSdcardAppears) {
    Start("[{\"folderPath\":\"/sdcard/demo_card\",\"maxLogNumber\":1}]");
    EXPECT_TRUE(Logged(kI, "[CheckSdcardReady] Sdcard not ready, schedule next check in 10 mins later"));
    for (int i = 1; i <= 2; ++i) Write(Device("/sdcard/demo_card/" + Dated(i)), std::to_string(i));
    Advance(600000);
    EXPECT_TRUE(Logged(kI, "[CheckSdcardReady] Sdcard is Ready, trigger sdcard ready callback"));
    EXPECT_EQ(List(Device("/sdcard/demo_card")), Dated({2}));
    Write(Device("/sdcard/demo_card/" + Dated(3)), "3");
    WaitChecks("/sdcard/demo_card", 1);
    EXPECT_EQ(List(Device("/sdcard/demo_card")), Dated({3}));
}

TEST_F(LogManagerTest, TheDisableSwitchKeepsTheModuleFromLoading) {
    ASSERT_TRUE(android::base::SetProperty("persist.bsp.logmgr.disable", "true"));
    LoadModules();
    EXPECT_TRUE(Logged(kW, "[OnInit] Will not load caused by disableLogMgr is true"));
    EXPECT_EQ(Dump({"LogManager"}), "Module LogManager is not running\n");
}

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(JsonUtil::ConvertStringToJson(text, value)) << text;
    return value;
}

// Reads one record; `why` gets the reason when it fails.
bool ReadRecord(const std::string& text, LogConfig& record, std::string* why = nullptr) {
    Json::Value json = Parse(text);
    std::vector<std::string> names = LogConfig::MemberNames();
    return record.TARNIS_CONVER_JSON_TO_OBJECT(json, names, why);
}

TEST(LogConfigTest, MembersReadUpToTheLargestNumbersAndOnesOfTheWrongKindFailTheRecord) {
    // The other keys show where they lead in the module's suite; these and the largest numbers do not.
    LogConfig record;
    std::string why;
    ASSERT_TRUE(ReadRecord(R"({"delayCompress":true,"maxSize":18446744073709551615,
        "compressLatestAfterSec":4294967295,"unknown":[1,2]})", record, &why)) << why;
    EXPECT_TRUE(record.delayCompress);
    EXPECT_EQ(record.maxSize, UINT64_MAX);
    EXPECT_EQ(record.compressLatestAfterSec, UINT32_MAX);

    // `strings`: folderName then folderPath as read, when the record is.
    struct Case {
        const char* text;
        bool ok;
        const char* strings;
    };
    const Case cases[] = {
        {"null", true, ""},
        {R"({"folderName":null,"other":"x"})", true, ""},
        {R"({"folderName":12})", true, "12\n"},
        {R"({"folderName":{ "x" : 1, "y":[true] }})", true, "{\"x\":1,\"y\":[true]}\n"},
        {R"({"folderPath":-2.5})", true, "-2.5\n"},
        {R"({"folderName":true})", false, ""},
        {R"({"maxSize":-1})", false, ""},
        {R"({"maxSize":null})", false, ""},
        {R"({"maxSize":2.0})", true, ""},
        {R"({"reuseMaxSize":18446744073709551616})", false, ""},
        {R"({"maxValidDay":4294967296})", false, ""},
        {R"({"maxLogNumber":4294967295})", true, ""},
        {R"({"compressLatestAfterSec":-1})", false, ""},
        {R"({"compress":1})", false, ""},
        {R"({"inVendor":null})", false, ""},
        {R"({"children":{"folderName":"a"}})", false, ""},
        {R"({"children":[{"maxSize":-1}]})", false, ""},
        {R"({"children":[]})", true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogConfig read;
        EXPECT_EQ(ReadRecord(c.text, read), c.ok);
        if (c.ok) {
            EXPECT_EQ(read.folderName + read.folderPath, c.strings);
        }
    }
    EXPECT_FALSE(ReadRecord("[1]", record, &why));
    EXPECT_EQ(why, "the record is not a JSON object but [1]");
    EXPECT_FALSE(ReadRecord(R"({"children":[{"folderName":"x"},{"folderName":"y","maxValidDay":1.5}]})", record, &why));
    EXPECT_EQ(why, "children[1] (folderName \"y\"): member \"maxValidDay\" has the wrong type: maxValidDay must be "
                   "a whole number from 0 to 4294967295, not 1.5");
}

TEST(LogConfigTest, LookupGoesRecordByRecordEachBeforeItsChildrenByNameOrFullPath) {
    std::vector<LogConfig> list = LogManagerUtil::GenerateConfigList(Parse(R"([
        {"folderName":"/data/nuvilog/bsp/a/b","maxLogNumber":1},
        {"folderName":"a","maxLogNumber":2,"children":[{"folderName":"b","maxLogNumber":3}]},
        {"folderName":"/data/nuvilog/bsp/c/d","maxLogNumber":4},
        {"folderName":"c","maxLogNumber":5,"children":[{"folderName":"d","maxLogNumber":6}]},
        {"folderName":"/data/nuvilog/bsp/c/d","maxLogNumber":7},
        {"folderName":"v","inVendor":true,"maxLogNumber":8,"children":[{"folderName":"w","maxLogNumber":9}]},
        {"folderPath":"/x/y","children":[{"folderName":"q","maxLogNumber":10},{"folderPath":"/z","maxLogNumber":11}]}
    ])"));
    ASSERT_EQ(list.size(), 7u);
    const auto numberOf = [&list](const std::string& name) {
        const auto found = LogManagerUtil::GetConfigByFolderName(name, list);
        return found ? found->maxLogNumber : 0u;
    };
    // First a top-level folderName that is also a later record's child's full path; a child lives where its
    // parent does, and a path of its own is taken as it is.
    const std::pair<std::string, unsigned> lookups[] = {
        {"/data/nuvilog/bsp/a/b", 1}, {"/data/nuvilog/bsp/a", 2}, {"b", 3}, {"d", 6}, {"/data/vendor/bsplog/v", 8},
        {"/data/vendor/bsplog/v/w", 9}, {"/x/y/q", 10}, {"/z", 11}};
    for (const auto& [name, number] : lookups) EXPECT_EQ(numberOf(name), number) << name;
    // The child of an earlier record comes before a later top-level record.
    const std::vector<LogConfig> tail(list.begin() + 3, list.end());
    const auto child = LogManagerUtil::GetConfigByFolderName("/data/nuvilog/bsp/c/d", tail);
    ASSERT_TRUE(child.has_value());
    EXPECT_EQ(child->maxLogNumber, 6u);
    ASSERT_NE(child->parent, nullptr);
    EXPECT_EQ(child->parent->folderName, "c");

    platform::LogCapture log;
    EXPECT_FALSE(LogManagerUtil::GetConfigByFolderName("nothing", list).has_value());
    EXPECT_TRUE(log.HasLine("[GetConfigByFolderName] ERR! config not found for nothing", kUtilTag, ANDROID_LOG_ERROR));

    // Records move when the list grows; the children, and copies of them, must still know their parents.
    const LogConfig copy = list[1].children[0];
    list.resize(list.size() + 64);
    LogManagerUtil::SetParents(list);
    EXPECT_EQ(LogManagerUtil::GetFullPathByConfig(list[1].children[0], false), "/data/nuvilog/bsp/a/b");
    EXPECT_EQ(LogManagerUtil::GetFullPathByConfig(copy, false), "/data/nuvilog/bsp/a/b");
}

// The configuration file's text, as the module reads it: what cannot be used is named with the reason.
TEST(LogConfigTest, ConfigTextThatCannotBeUsedIsNamedAndBadRecordsAreSkipped) {
    std::vector<LogConfig> out{LogConfig{}};
    Json::Value json{1};
    std::string why;
    const auto read = [&](const std::string& text) {
        return LogManagerUtil::ParseConfigText(text, "log_config.json", &out, &json, &why);
    };
    EXPECT_FALSE(read("[{\"folderName\":"));
    EXPECT_TRUE(out.empty());
    EXPECT_TRUE(json.isNull());
    // The parser's own words follow the byte; they are the JSON library's.
    EXPECT_EQ(why.rfind("log_config.json is not JSON: not valid JSON at byte 15: ", 0), 0u) << why;

    platform::LogCapture log;
    EXPECT_FALSE(read(R"({"folderName":"a"})"));
    EXPECT_EQ(why, "log_config.json is not an array of records: it is an object");
    EXPECT_TRUE(json.isObject());
    EXPECT_TRUE(log.HasLine("[ReadConfigFile] " + why, kUtilTag, ANDROID_LOG_ERROR));

    EXPECT_TRUE(read(R"([{"folderName":"a","children":[{"folderName":"b"}]}])"));
    EXPECT_EQ(why, "");
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(LogManagerUtil::GetFullPathByConfig(out[0].children.at(0), false), "/data/nuvilog/bsp/a/b");

    EXPECT_FALSE(read(R"([{"folderName":"a"},{"folderName":"b","maxSize":-1},{"compress":true},
        {"folderName":"d","children":[{"folderName":"e"},{"maxLogNumber":3}]}])"));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].folderName + " " + out[1].folderName, "a d");
    ASSERT_EQ(out[1].children.size(), 1u);
    EXPECT_EQ(LogManagerUtil::GetFullPathByConfig(out[1].children[0], false), "/data/nuvilog/bsp/d/e");
    EXPECT_EQ(why, "log_config.json: record 1 (folderName \"b\") skipped: member \"maxSize\" has the wrong type: "
                   "maxSize must be a whole number from 0 to 18446744073709551615, not -1; record 2 skipped: it has "
                   "no folderName and no folderPath; record 3 (folderName \"d\") children[1] skipped: it has no "
                   "folderName and no folderPath");
}

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
        for (const char* dir : {kBsp.c_str(), "/sdcard", "/system_ext/etc/tarnsys"}) {
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
        const std::string dirs[2] = {kBsp + "/eq_kept_" + std::to_string(seed),
                                     kBsp + "/eq_full_" + std::to_string(seed)};
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
    auto held = std::make_unique<Held>();
    // Gone before the listener when a step fails, and so lets it go before it is stopped.
    std::promise<void> letGo;
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

    const std::string dir = kBsp + "/lost";
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
        const std::vector<long> totals = tarnis_test::NumbersInLines(
                log_, "[updatePathSizeMap] update pathSizeMap for " + dir + ", totalSize: ", "", kTag, kD);
        int64_t difference = totals.empty() ? -1 : totals.back();
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
