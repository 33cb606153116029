// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <regex>
#include <thread>

#include <android-base/properties.h>

#include "tests/support/DumpSandbox.h"
#include "tests/support/WaitFor.h"
#include "utils/dump/DirectoryHelpers.h"

using namespace tarnis_test;
using android::CaptureLogUtil;
using android::String16;
using android::base::SetProperty;

namespace {

using CapturePackagerTest = CaptureSandboxTest;
using DirectoryHelpersTest = CaptureSandboxTest;

int Compress(const char* capture, const char* where, std::vector<String16>* files = nullptr, int seconds = 5,
             bool recordInLocal = false) {
    return CaptureLogUtil::do_compress(capture, where, files, seconds, recordInLocal);
}

}  // namespace

TEST_F(CapturePackagerTest, ArchivePathAndEntryNames) {
    Make("/data/dorva/ne/online/cap", "capture text\n");
    Make("/data/anr/trace_1", "trace\n");
    MakeDirs({"/data/x", "/etc"});
    std::vector<String16> files = List({"/data/anr/trace_1"});
    // A writable directory written with its final slash receives the archive.
    EXPECT_EQ(Compress("/data/dorva/ne/online/cap", "/data/x/", &files), 0);
    const std::string zip = Path("/data/x/cap.zip");
    // The capture file's entry is its bare name; attachments keep their parent.
    EXPECT_EQ(Entries(zip), "anr/trace_1\ncap\n");
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "capture text\n");

    // Without the final slash, or to a missing or off-partition directory, the archive goes beside the capture.
    const std::string beside = Path("/data/dorva/ne/online/cap.zip");
    for (const char* where : {"/data/x", "/data/none/", "/data/../etc/"}) {
        SCOPED_TRACE(where);
        unlink(beside.c_str());
        EXPECT_EQ(Compress("/data/dorva/ne/online/cap", where), 0);
        EXPECT_EQ(Entries(beside), "cap\n");
    }
    EXPECT_EQ(Names("/etc"), "");

    // A `where` swapped for a link mid-packing: the archive still goes into the directory that was checked.
    TempDir outside;
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, [&] {
        rename(Path("/data/x").c_str(), Path("/data/x.moved").c_str());
        symlink(outside.path().c_str(), Path("/data/x").c_str());
    });
    EXPECT_EQ(Compress("/data/dorva/ne/online/cap", "/data/x/", &files), 0);
    CaptureLogUtil::SetCompressHooksForTesting(nullptr, nullptr);
    EXPECT_EQ(RunShell("ls -A '" + outside.path() + "'"), "");
    EXPECT_EQ(Entries(Path("/data/x.moved/cap.zip")), "anr/trace_1\ncap\n");
}

// A "gbg" attachment renames the archive; the mode, offline database and local record use the new name.
TEST_F(CapturePackagerTest, OfflineDatabaseAndLocalRecordCopiesOfTheRenamedArchive) {
    ASSERT_TRUE(SetProperty("persist.sys.nuviofflinedb", "true"));
    MakeDirs({"/data/nuvilog/stability"});
    Make("/data/gbg/dump.bin");
    const std::string capture = "/data/dorva/ne/online/7_ne_head_dev_inc_123_456_789";
    Make(capture);
    std::vector<String16> gbg = List({"/data/gbg/dump.bin"});
    EXPECT_EQ(Compress(capture.c_str(), nullptr, &gbg, 5, true), 0);
    const std::string renamed = Path(capture + ".zip.mtk");
    EXPECT_EQ(Entries(renamed), "7_ne_head_dev_inc_123_456_789\ngbg/dump.bin\n");
    EXPECT_FALSE(Exists(Path(capture + ".zip")));
    EXPECT_EQ(ModeOf(renamed), 0774u);
    // Fields 1, 5, 6, 7 and 3 of "/7_ne_head_dev_inc_123_456_789.zip.mtk".
    const std::string copies = RunShell("cd '" + Path("/data/nuvilog") + "' && ls *.zip");
    EXPECT_TRUE(std::regex_match(copies, std::regex("ne_[0-9]{4}(-[0-9]{2}){5}_123_456_789\\.zip\\.mtk_dev\\.zip\n")))
        << copies;
    // The local record copy keeps the archive's name.
    EXPECT_EQ(Names("/data/nuvilog/stability/reboot"), "7_ne_head_dev_inc_123_456_789.zip.mtk\n");
    EXPECT_TRUE(Logged(log_, "start copy log which ruleid is not -1"));
    EXPECT_TRUE(Logged(log_, "copy " + renamed));

    // A link planted at the local record's name is replaced, not written through.
    const std::string victim = root_.Sub("victim");
    WriteFile(victim, "precious");
    const std::string record = Path("/data/nuvilog/stability/reboot/7_ne_head_dev_inc_123_456_789.zip.mtk");
    ASSERT_EQ(unlink(record.c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), record.c_str()), 0);
    EXPECT_EQ(Compress(capture.c_str(), nullptr, &gbg, 5, true), 0);
    EXPECT_EQ(ReadFile(victim), "precious");
    EXPECT_EQ(Entries(record), "7_ne_head_dev_inc_123_456_789\ngbg/dump.bin\n");

    // A name with too few fields is skipped, never read past its end.
    Make("/data/dorva/ne/online/short_name");
    EXPECT_EQ(Compress("/data/dorva/ne/online/short_name", nullptr), 0);
    EXPECT_TRUE(Logged(log_, "skip offline db copy of " + Path("/data/dorva/ne/online/short_name.zip") +
                                ": 2 name fields, 8 needed"));
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
    EXPECT_EQ(Compress("/data/dorva/t/online/cap", nullptr, nullptr, 1), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    // The detached worker still completes the archive.
    const std::string zip = Path("/data/dorva/t/online/cap.zip");
    ASSERT_TRUE(WaitFor([&] {
        int status = -1;
        RunShell("unzip -tq '" + zip + "' >/dev/null 2>&1", &status);
        return status == 0;
    }));
    EXPECT_EQ(RunShell("unzip -p '" + zip + "' cap"), "slow\n");
    std::lock_guard<std::mutex> guard(lock);
    EXPECT_EQ(workerName, "CaptureLog_Comp");
    EXPECT_GT(CPU_COUNT(&workerCpus), 0);
    for (int cpu = 6; cpu < CPU_SETSIZE; ++cpu) EXPECT_FALSE(CPU_ISSET(cpu, &workerCpus)) << cpu;
}

// Attachments are the client's paths: nothing off /data or through a link is packed, opened up or deleted.
TEST_F(CapturePackagerTest, NativeCrashFilesDeletedOrKeptAndHostileAttachmentsTouchNothing) {
    const std::string core = Make("/data/nuvilog/stability/nativecrash/core_1", "core");
    const std::string tomb = Make("/data/nuvilog/stability/nativecrash/tombstones/tomb_1", "tomb");
    Make("/data/dorva/ne/online/1_ne_x");
    TempDir outside;
    const std::string secret = outside.Sub("secret.txt");
    ASSERT_TRUE(WriteFile(secret, "secret"));
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    ASSERT_EQ(symlink(outside.path().c_str(), Path("/data/nuvilog/stability/nativecrash/planted").c_str()), 0);
    const std::string climb = "/data/nuvilog/stability/nativecrash/../../../.." + outside.path() + "/secret.txt";
    const std::string up = "/data/../" + outside.path() + "/secret.txt";
    std::atomic<int> seenTimeout{0};
    CaptureLogUtil::SetCompressHooksForTesting([&](int timeout) { seenTimeout = timeout; }, nullptr);
    std::vector<String16> files =
        List({"/data/nuvilog/stability/nativecrash/core_1", "/data/nuvilog/stability/nativecrash/tombstones/tomb_1",
              climb.c_str(), "/data/nuvilog/stability/nativecrash/planted/secret.txt", up.c_str()});

    ASSERT_TRUE(SetProperty("persist.reboot.coredump", "true"));
    EXPECT_EQ(Compress("/data/dorva/ne/online/1_ne_x", nullptr, &files), 0);
    EXPECT_TRUE(Logged(log_, "skip delete file(" + core + ") \n"));
    EXPECT_TRUE(Logged(log_, "skip delete file(" + tomb + ") \n"));
    EXPECT_EQ(log_.Count("delete file("), 2u);
    // Each native crash adds four minutes for its core dump; a refused one nothing.
    EXPECT_EQ(seenTimeout.load(), 5 + 2 * 240);
    EXPECT_TRUE(Exists(core));
    EXPECT_EQ(Entries(Path("/data/dorva/ne/online/1_ne_x.zip")), "1_ne_x\nnativecrash/core_1\ntombstones/tomb_1\n");

    ASSERT_TRUE(SetProperty("persist.reboot.coredump", "false"));
    log_.Clear();
    EXPECT_EQ(Compress("/data/dorva/ne/online/1_ne_x", nullptr, &files), 0);
    EXPECT_FALSE(Exists(core));
    EXPECT_TRUE(Exists(tomb));  // the tombstone monitor's own copies stay
    EXPECT_TRUE(Logged(log_, "delete file(" + core + ") \n"));
    EXPECT_TRUE(Logged(log_, "skip delete file(" + tomb + ") \n", ANDROID_LOG_WARN));
    EXPECT_EQ(CountExact(log_, "delete file(" + tomb + ") \n"), 0u);
    EXPECT_EQ(log_.Count("delete file("), 2u);
    EXPECT_EQ(log_.Count("attachment refused"), 3u);
    EXPECT_EQ(ReadFile(secret), "secret");
    EXPECT_EQ(ModeOf(secret), 0600u);

    // Only captures of native crashes ("_ne_") clean up.
    Make("/data/nuvilog/stability/nativecrash/core_2");
    Make("/data/dorva/je/online/1_je_x");
    std::vector<String16> other = List({"/data/nuvilog/stability/nativecrash/core_2"});
    EXPECT_EQ(Compress("/data/dorva/je/online/1_je_x", nullptr, &other), 0);
    EXPECT_TRUE(Exists(Path("/data/nuvilog/stability/nativecrash/core_2")));
}

TEST_F(CapturePackagerTest, AtMostSixteenFilesOpenedUpPerAttachment) {
    MakeDirs({"/data/many", "/data/linked"});
    for (int i = 0; i < 40; ++i) chmod(Make("/data/many/f" + std::to_string(i), "x").c_str(), 0600);
    int count = 0;
    CaptureLogUtil::include_zip_files(Path("/data/many").c_str(), &count);
    EXPECT_EQ(count, 16);
    EXPECT_EQ(RunShell("find '" + Path("/data/many") + "' -type f -perm 0777 | wc -l"), "16\n");

    // A link is counted but its target not opened up; the uid errors file keeps its mode.
    const std::string outside = Make("/outside", "private");
    chmod(outside.c_str(), 0600);
    symlink(outside.c_str(), Path("/data/linked/link").c_str());
    const std::string uidErrors = Make("/data/system/uiderrors.txt");
    chmod(uidErrors.c_str(), 0640);
    for (const std::string& attachment : {Path("/data/linked"), uidErrors}) {
        count = 0;
        CaptureLogUtil::include_zip_files(attachment.c_str(), &count);
        EXPECT_EQ(count, 1) << attachment;
    }
    EXPECT_EQ(ModeOf(outside), 0600u);
    EXPECT_EQ(ModeOf(uidErrors), 0640u);
}

TEST_F(DirectoryHelpersTest, DeleteDirContentsKeepsExclusionsAndNeverFollowsLinks) {
    const std::string dir = Path("/tree");
    for (const char* file : {"/tree/a", "/tree/keep/k", "/tree/sub/deeper/d", "/outside/precious"}) Make(file, "p");
    symlink(Path("/outside").c_str(), (dir + "/link").c_str());
    const auto keep = [](const char* name, bool isDir) { return isDir && strcmp(name, "keep") == 0; };
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), false, keep), 0);
    EXPECT_EQ(RunShell("cd '" + dir + "' && find . | sort"), ".\n./keep\n./keep/k\n");
    EXPECT_EQ(android::delete_dir_contents(dir.c_str(), true, nullptr), 0);
    EXPECT_FALSE(Exists(dir));
    // A link in the directory's own place: neither emptied through nor removed.
    const std::string linked = Path("/linked") + "/";
    symlink(Path("/outside").c_str(), Path("/linked").c_str());
    EXPECT_EQ(android::delete_dir_contents(linked.c_str(), true, nullptr), -1);
    EXPECT_EQ(ReadFile(Path("/outside/precious")), "p");
    EXPECT_TRUE(Logged(log_, "Couldn't opendir " + linked + ": Not a directory\n"));
    EXPECT_EQ(android::delete_dir_contents(Path("/none").c_str(), false, nullptr), -1);
    EXPECT_TRUE(Logged(log_, "Couldn't opendir " + Path("/none") + ": No such file or directory\n"));
}

TEST_F(DirectoryHelpersTest, CreateDirIfNeededMakesOrCorrectsOnlyRealDirectories) {
    const std::string made = Path("/made");
    umask(022);
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    chmod(made.c_str(), 0700);
    EXPECT_EQ(android::create_dir_if_needed((made + "/").c_str(), 0750), 0);
    EXPECT_EQ(ModeOf(made), 0750u);
    EXPECT_TRUE(Logged(log_, made + "/perm 700 expected 750", ANDROID_LOG_WARN));
    // Already right: nothing to say.
    log_.Clear();
    EXPECT_EQ(android::create_dir_if_needed(made.c_str(), 0750), 0);
    EXPECT_EQ(log_.Count("perm", "dorvad"), 0u);
    // A file, or a link planted in the directory's place: refused, the link's target's mode untouched.
    Make("/file");
    MakeDirs({"/outside"});
    ASSERT_EQ(chmod(Path("/outside").c_str(), 0700), 0);
    symlink(Path("/outside").c_str(), Path("/planted").c_str());
    for (const std::string& path : {Path("/file"), Path("/planted") + "/"}) {
        EXPECT_EQ(android::create_dir_if_needed(path.c_str(), 0777), -1);
        EXPECT_TRUE(Logged(log_, path + " is not a dir.")) << path;
    }
    EXPECT_EQ(ModeOf(Path("/outside")), 0700u);
}

TEST_F(DirectoryHelpersTest, CopyFileCopiesWholeFilesAndRefusesALinkedTarget) {
    const std::string from = Make("/file", std::string(300 * 1024, 'b'));
    const std::string to = Path("/copy");
    EXPECT_EQ(android::copy_file(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(ReadFile(to), std::string(300 * 1024, 'b'));
    EXPECT_EQ(ModeOf(to), 0664u & ~022u);
    // A shorter source replaces the whole of an existing copy.
    WriteFile(from, "12345");
    EXPECT_EQ(android::copy_file(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(ReadFile(to), "12345");
    EXPECT_EQ(android::copy_file(Path("/none").c_str(), to.c_str()), -1);
    EXPECT_TRUE(Logged(log_, "Failed to open copy from " + Path("/none") + "  reason: No such file or directory"));
    const std::string planted = Path("/planted");
    symlink(Make("/precious", "p").c_str(), planted.c_str());
    EXPECT_EQ(android::copy_file(from.c_str(), planted.c_str()), -1);
    EXPECT_EQ(ReadFile(Path("/precious")), "p");
    EXPECT_TRUE(Logged(log_, "Failed to open copy to " + planted + "  reason: Too many levels of symbolic links"));
}
