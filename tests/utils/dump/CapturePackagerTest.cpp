// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <host/Utf8.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include <android-base/properties.h>
#include <log/log.h>

#include "platform/LogCapture.h"
#include "tests/support/DumpSandbox.h"
#include "utils/dump/CaptureLogUtil.h"

using android::CaptureLogUtil;
using android::String16;
using tarnis_test::CountExact;
using tarnis_test::Exists;
using tarnis_test::SandboxTest;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WriteFile;

namespace {

class CapturePackagerTest : public SandboxTest {
protected:
    // Creates a device file (and its directories) with some content.
    std::string Make(const std::string& devicePath, const std::string& content = "content\n") {
        const std::string path = Path(devicePath);
        RunShell("mkdir -p \"$(dirname '" + path + "')\"");
        WriteFile(path, content);
        return path;
    }
    void MakeDir(const std::string& devicePath) { RunShell("mkdir -p '" + Path(devicePath) + "'"); }
    // Entry names of an archive, one a line, sorted.
    static std::string Entries(const std::string& zip) { return RunShell("unzip -Z1 '" + zip + "' | sort"); }
    static std::vector<String16> List(std::initializer_list<const char*> paths) {
        std::vector<String16> list;
        for (const char* path : paths) list.push_back(platform::ToUtf16(path));
        return list;
    }
};

}  // namespace

TEST_F(CapturePackagerTest, ArchivePathAndEntryNames) {
    Make("/data/dorva/ne/online/cap", "capture text\n");
    Make("/data/anr/trace_1", "trace\n");
    MakeDir("/data/x");
    std::vector<String16> files = List({"/data/anr/trace_1"});
    // A writable directory written with its final slash receives the archive.
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/cap", "/data/x/", &files, 5, false), 0);
    const std::string zip = Path("/data/x/cap.zip");
    ASSERT_TRUE(Exists(zip));
    // The capture file's entry is its bare name; attachments keep their parent.
    EXPECT_EQ(Entries(zip), "anr/trace_1\ncap\n");
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "capture text\n");
    struct stat st;
    ASSERT_EQ(stat(zip.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0774u);

    // Without the final slash (or a directory that is missing), the archive
    // goes beside the capture.
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/cap", "/data/x", &files, 5, false), 0);
    EXPECT_TRUE(Exists(Path("/data/dorva/ne/online/cap.zip")));
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/cap", "/data/none/", nullptr, 5, false), 0);
    EXPECT_EQ(Entries(Path("/data/dorva/ne/online/cap.zip")), "cap\n");
    // So does one off the capture partitions, writable or not.
    RunShell("mkdir -p '" + Path("/etc") + "'");
    unlink(Path("/data/dorva/ne/online/cap.zip").c_str());
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/cap", "/data/../etc/", nullptr, 5, false), 0);
    EXPECT_TRUE(Exists(Path("/data/dorva/ne/online/cap.zip")));
    EXPECT_EQ(RunShell("ls -A '" + Path("/etc") + "'"), "");

    // A `where` swapped for a link while the archive is packed: the archive
    // still goes into the directory that was checked, not where the link leads.
    tarnis_test::TempDir outside;
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        rename(Path("/data/x").c_str(), Path("/data/x.moved").c_str());
        symlink(outside.path().c_str(), Path("/data/x").c_str());
    });
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/cap", "/data/x/", &files, 5, false), 0);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(Entries(Path("/data/x.moved/cap.zip")), "anr/trace_1\ncap\n");

    // Outside the online directories the capture keeps its parent as well.
    Make("/data/other/cap2");
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/other/cap2", nullptr, nullptr, 5, false), 0);
    EXPECT_EQ(Entries(Path("/data/other/cap2.zip")), "other/cap2\n");

    // A "gbg" attachment renames the archive.
    Make("/data/gbg/dump.bin");
    std::vector<String16> gbg = List({"/data/gbg/dump.bin"});
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/other/cap2", nullptr, &gbg, 5, false), 0);
    EXPECT_TRUE(Exists(Path("/data/other/cap2.zip.mtk")));
    EXPECT_EQ(Entries(Path("/data/other/cap2.zip.mtk")), "gbg/dump.bin\nother/cap2\n");
    EXPECT_FALSE(Exists(Path("/data/other/cap2.zip")));
}

// After the ".mtk" rename every later step works on the renamed archive.
TEST_F(CapturePackagerTest, StepsAfterTheRenameUseTheRenamedArchive) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.nuviofflinedb", "true"));
    MakeDir("/data/nuvilog/stability");
    Make("/data/gbg/dump.bin");
    const std::string capture = "/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789";
    Make(capture);
    std::vector<String16> gbg = List({"/data/gbg/dump.bin"});
    EXPECT_EQ(CaptureLogUtil::do_compress(capture.c_str(), nullptr, &gbg, 5, true), 0);
    const std::string renamed = Path(capture + ".zip.mtk");
    struct stat st;
    ASSERT_EQ(stat(renamed.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0774u);
    EXPECT_EQ(RunShell("ls '" + Path("/data/nuvilog/stability/reboot") + "'"),
              "7_ne_head_dev_inc_123_456_789.zip.mtk\n");
    const std::string copies = RunShell("cd '" + Path("/data/nuvilog") + "' && ls *.zip");
    EXPECT_TRUE(std::regex_match(copies, std::regex("ne_[0-9]{4}(-[0-9]{2}){5}_123_456_789\\.zip\\.mtk_dev\\.zip\n")))
        << copies;
}

TEST_F(CapturePackagerTest, SlowWorkerTimesOutButFinishesItsArchive) {
    Make("/data/dorva/t/online/cap", "slow\n");
    std::mutex lock;
    std::string workerName;
    cpu_set_t workerCpus;
    CPU_ZERO(&workerCpus);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        std::lock_guard<std::mutex> guard(lock);
        workerName = name;
        sched_getaffinity(0, sizeof(workerCpus), &workerCpus);
        std::this_thread::sleep_for(std::chrono::milliseconds(2000));
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/t/online/cap", nullptr, nullptr, 1, false), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    // The detached worker still completes the archive.
    const std::string zip = Path("/data/dorva/t/online/cap.zip");
    int status = -1;
    for (int i = 0; i < 100 && status != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        RunShell("unzip -tq '" + zip + "' >/dev/null 2>&1", &status);
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "slow\n");
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(workerName, "CaptureLog_Comp");
    EXPECT_GT(CPU_COUNT(&workerCpus), 0);
    for (int cpu = 6; cpu < CPU_SETSIZE; ++cpu) EXPECT_FALSE(CPU_ISSET(cpu, &workerCpus)) << cpu;
}

TEST_F(CapturePackagerTest, NativeCrashFilesDeletedOrKeptPerProperties) {
    const std::string core = Make("/data/nuvilog/stability/nativecrash/core_1", "core");
    const std::string tomb = Make("/data/nuvilog/stability/nativecrash/tombstones/tomb_1", "tomb");
    Make("/data/dorva/ne/online/1_ne_x");
    std::atomic<int> seenTimeout{0};
    CaptureLogUtil::SetCompressHooksForTesting([&](int timeout) { seenTimeout = timeout; }, nullptr);
    std::vector<String16> files = List({"/data/nuvilog/stability/nativecrash/core_1",
                                   "/data/nuvilog/stability/nativecrash/tombstones/tomb_1"});

    ASSERT_TRUE(android::base::SetProperty("persist.reboot.coredump", "true"));
    {
        platform::LogCapture log;
        EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/1_ne_x", nullptr, &files, 5, false), 0);
        EXPECT_TRUE(log.HasLine("skip delete file(" + core + ") \n", "dorvad", ANDROID_LOG_ERROR));
        EXPECT_TRUE(log.HasLine("skip delete file(" + tomb + ") \n", "dorvad", ANDROID_LOG_ERROR));
        EXPECT_EQ(log.Count("delete file("), 2u);
    }
    // Each native crash adds four minutes for its core dump.
    EXPECT_EQ(seenTimeout.load(), 5 + 2 * 240);
    EXPECT_TRUE(Exists(core));
    EXPECT_TRUE(Exists(tomb));
    EXPECT_EQ(Entries(Path("/data/dorva/ne/online/1_ne_x.zip")),
              "1_ne_x\nnativecrash/core_1\ntombstones/tomb_1\n");

    ASSERT_TRUE(android::base::SetProperty("persist.reboot.coredump", "false"));
    platform::LogCapture log;
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/1_ne_x", nullptr, &files, 5, false), 0);
    EXPECT_FALSE(Exists(core));
    EXPECT_TRUE(Exists(tomb));  // the tombstone monitor's own copies stay
    EXPECT_TRUE(log.HasLine("delete file(" + core + ") \n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("skip delete file(" + tomb + ") \n", "dorvad", ANDROID_LOG_WARN));
    EXPECT_EQ(CountExact(log, "delete file(" + tomb + ") \n"), 0u);

    // Only captures of native crashes ("_ne_") clean up.
    Make("/data/nuvilog/stability/nativecrash/core_2");
    Make("/data/dorva/je/online/1_je_x");
    std::vector<String16> other = List({"/data/nuvilog/stability/nativecrash/core_2"});
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/je/online/1_je_x", nullptr, &other, 5, false), 0);
    EXPECT_TRUE(Exists(Path("/data/nuvilog/stability/nativecrash/core_2")));
}

// Attachments are the client's paths: nothing outside /data, nothing through
// a link, is packed, opened up or deleted.
TEST_F(CapturePackagerTest, HostileAttachmentsTouchNothingOutsideTheirTree) {
    tarnis_test::TempDir outside;
    const std::string secret = outside.Sub("secret.txt");
    ASSERT_TRUE(WriteFile(secret, "secret"));
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    Make("/data/nuvilog/stability/nativecrash/keep");
    Make("/data/dorva/ne/online/1_ne_x");
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/nuvilog/stability/nativecrash/planted").c_str()), 0);
    const std::string climb = "/data/nuvilog/stability/nativecrash/../../../.." + outside.path() + "/secret.txt";
    const std::string up = "/data/../" + outside.path() + "/secret.txt";
    std::vector<String16> files =
        List({climb.c_str(), "/data/nuvilog/stability/nativecrash/planted/secret.txt", up.c_str()});
    platform::LogCapture log;
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/1_ne_x", nullptr, &files, 5, false), 0);
    EXPECT_EQ(ReadFile(secret), "secret");
    struct stat st;
    ASSERT_EQ(stat(secret.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(Entries(Path("/data/dorva/ne/online/1_ne_x.zip")), "1_ne_x\n");
    EXPECT_EQ(log.Count("attachment refused"), 3u);
    EXPECT_EQ(log.Count("delete file("), 0u);
}

TEST_F(CapturePackagerTest, OfflineDatabaseAndLocalRecordCopies) {
    ASSERT_TRUE(android::base::SetProperty("persist.sys.nuviofflinedb", "true"));
    MakeDir("/data/nuvilog/stability");
    Make("/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789");
    platform::LogCapture log;
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789", nullptr, nullptr,
                                          5, true),
              0);
    // Fields 1, 5, 6, 7 and 3 of "/7_ne_head_dev_inc_123_456_789.zip".
    const std::string copies = RunShell("cd '" + Path("/data/nuvilog") + "' && ls *.zip");
    EXPECT_TRUE(std::regex_match(copies, std::regex("ne_[0-9]{4}(-[0-9]{2}){5}_123_456_789\\.zip_dev\\.zip\n")))
        << copies;
    // The local record copy keeps the archive's name.
    EXPECT_TRUE(Exists(Path("/data/nuvilog/stability/reboot/7_ne_head_dev_inc_123_456_789.zip")));
    EXPECT_TRUE(log.HasLine("start copy log which ruleid is not -1", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.HasLine("copy " + Path("/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789.zip"), "dorvad",
                            ANDROID_LOG_ERROR));

    // A link planted at the local record's name is replaced, not written
    // through.
    const std::string victim = root_.Sub("victim");
    WriteFile(victim, "precious");
    const std::string record = Path("/data/nuvilog/stability/reboot/7_ne_head_dev_inc_123_456_789.zip");
    ASSERT_EQ(unlink(record.c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), record.c_str()), 0);
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789", nullptr, nullptr,
                                          5, true),
              0);
    EXPECT_EQ(ReadFile(victim), "precious");
    struct stat st;
    ASSERT_EQ(lstat(record.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // A name with too few fields is skipped, never read past its end.
    Make("/data/dorva/ne/online/short_name");
    EXPECT_EQ(CaptureLogUtil::do_compress("/data/dorva/ne/online/short_name", nullptr, nullptr, 5, false), 0);
    EXPECT_TRUE(log.HasLine("skip offline db copy of " + Path("/data/dorva/ne/online/short_name.zip") +
                                ": 2 name fields, 8 needed",
                            "dorvad", ANDROID_LOG_ERROR));
}

TEST_F(CapturePackagerTest, AtMostSixteenFilesOpenedUpPerAttachment) {
    MakeDir("/data/many");
    for (int i = 0; i < 40; ++i) {
        const std::string file = Path("/data/many/f" + std::to_string(i));
        WriteFile(file, "x");
        chmod(file.c_str(), 0600);
    }
    int count = 0;
    CaptureLogUtil::include_zip_files(Path("/data/many").c_str(), &count);
    EXPECT_EQ(count, 16);
    EXPECT_EQ(RunShell("find '" + Path("/data/many") + "' -type f -perm 0777 | wc -l"), "16\n");

    // A link among the attachments is counted, but its target is not opened up.
    const std::string outside = root_.Sub("outside");
    WriteFile(outside, "private");
    chmod(outside.c_str(), 0600);
    MakeDir("/data/linked");
    symlink(outside.c_str(), Path("/data/linked/link").c_str());
    count = 0;
    CaptureLogUtil::include_zip_files(Path("/data/linked").c_str(), &count);
    EXPECT_EQ(count, 1);
    struct stat st;
    ASSERT_EQ(stat(outside.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    // The uid errors file keeps its mode.
    const std::string uidErrors = Make("/data/system/uiderrors.txt");
    chmod(uidErrors.c_str(), 0640);
    count = 0;
    CaptureLogUtil::include_zip_files(uidErrors.c_str(), &count);
    EXPECT_EQ(count, 1);
    ASSERT_EQ(stat(uidErrors.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}
