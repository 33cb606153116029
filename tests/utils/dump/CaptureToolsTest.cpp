// What captures are made with: the command runners, the wait for a child, the directory helpers and the packer.
// GCC 12 reports a false maybe-uninitialized inside <regex> when built with sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <regex>
#include <thread>
#include <tuple>

#include <android-base/properties.h>

#include "tests/support/DumpSandbox.h"
#include "tests/support/WaitFor.h"
#include "utils/dump/ChildWait.h"
#include "utils/dump/CmdTool.h"
#include "utils/dump/DirectoryHelpers.h"

using namespace tarnis_test;
using android::CaptureLogUtil;
using android::ChildWait;
using android::CmdTool;
using android::String16;
using android::base::SetProperty;

namespace {
using CapturePackagerTest = CaptureSandboxTest;
using DirectoryHelpersTest = CaptureSandboxTest;

int Compress(const char* capture, const char* where, std::vector<String16>* files = nullptr, int seconds = 5,
             bool recordInLocal = false) {
    return CaptureLogUtil::do_compress(capture, where, files, seconds, recordInLocal);
}

using CommandRunnerTest = SandboxTest;
using CmdToolTest = SandboxTest;
using ChildWaitTest = SandboxTest;

// This runner has no tag of its own: its lines carry the log's default one.
bool CmdToolLogged(const platform::LogCapture& log, const std::string& text, int prio = ANDROID_LOG_ERROR) {
    return log.HasLine("dorvad cmdtool " + text, platform::DefaultLogTag(), prio);
}

pid_t Sleeper() {
    const pid_t pid = fork();
    while (pid == 0) pause();
    return pid;
}

// As init of a pid namespace: 0 if a ChildWait whose child was reaped elsewhere left the pid's newcomer alone.
int SignalAfterThePidWasReused() {
    const pid_t first = Sleeper();
    ChildWait wait(first);
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);  // someone else reaps it
    // The next child gets the number just freed.
    const std::string last = std::to_string(first - 1);
    const int sysctl = open("/proc/sys/kernel/ns_last_pid", O_WRONLY | O_CLOEXEC);
    if (sysctl < 0 || write(sysctl, last.data(), last.size()) != static_cast<ssize_t>(last.size())) return 2;
    close(sysctl);
    const pid_t second = Sleeper();
    int failed = 0;
    if (second != first) {
        failed = 3;
    } else if (wait.Signal(SIGKILL) == 0 || errno != ESRCH) {
        failed = 4;
    } else if (wait.Stop("dorvad", "")) {
        failed = 5;  // reported as stopped: it reaped or signalled the newcomer
    } else if (waitpid(second, nullptr, WNOHANG) != 0) {
        failed = 6;  // the newcomer was hit
    }
    kill(second, SIGKILL);
    waitpid(second, nullptr, 0);
    return failed;
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
    log_.Clear();  // already right: nothing to say
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

// A timed-out child is ended and reaped; the default time-out follows the test mode, which then stays.
TEST_F(CommandRunnerTest, ResultLinesForExitsSignalsExecFailuresAndTimeouts) {
    const std::string file = root_.Sub("cap");
    CaptureLogUtil::run_command({"sh", "-c", "echo out; echo err >&2; exit 3"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"true"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"sh", "-c", "kill -9 $$"}, file.c_str(), 5);
    CaptureLogUtil::run_command({"tarnis-no-such-tool", "x"}, file.c_str(), 0);
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string timedOut = "\\*\\*\\* sleep: Timed out after 1\\.[0-9]{3}s \\(killing pid ([0-9]+)\\)\n";
    const std::string killed = LineMatching(log_, timedOut, "dorvad", ANDROID_LOG_ERROR);
    ASSERT_NE(killed, "");
    EXPECT_EQ(kill(std::stoi(killed.substr(killed.rfind(' ') + 1)), 0), -1);  // reaped: no zombie left behind
    EXPECT_TRUE(Logged(log_, "run_command: sleep 10\n"));
    EXPECT_FALSE(CaptureLogUtil::isTestMode());
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "true"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), -1);
    EXPECT_TRUE(CaptureLogUtil::isTestMode());
    // Without the property the flag keeps the longer default.
    ASSERT_TRUE(android::base::SetProperty("persist.mtbf.test", "false"));
    CaptureLogUtil::run_command({"sleep", "10"}, file.c_str(), 0);
    const std::string text = ReadFile(file);
    const std::regex expected(
        "------ \\(sh -c echo out; echo err >&2; exit 3\\) in 5s ------\n"
        "out\nerr\n"
        "\\*\\*\\* sh: Exit code 3, [0-9]+\n"
        "\\[sh: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(true\\) in 5s ------\n"
        "\\[true: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(sh -c kill -9 \\$\\$\\) in 5s ------\n"
        "\\*\\*\\* sh: Killed by signal 9\n"
        "\\[sh: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(tarnis-no-such-tool x\\) in 0s ------\n"
        "\\*\\*\\* exec\\(tarnis-no-such-tool\\): No such file or directory\n"
        "\\*\\*\\* tarnis-no-such-tool: Exit code 255, [0-9]+\n"
        "\\[tarnis-no-such-tool: 0\\.[0-9]{3}s elapsed\\]\n\n"
        "------ \\(sleep 10\\) in 0s ------\n"
        "\\*\\*\\* sleep: Timed out after 1\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n"
        "------ \\(sleep 10\\) in -1s ------\n"
        "\\*\\*\\* sleep: Timed out after 2\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n"
        "------ \\(sleep 10\\) in 0s ------\n"
        "\\*\\*\\* sleep: Timed out after 2\\.[0-9]{3}s \\(killing pid [0-9]+\\)\n");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(CommandRunnerTest, SynchronousWritesOnlyForPowerCaptures) {
    auto flagsOfStdout = [&](const std::string& file) {
        CaptureLogUtil::run_command({"sh", "-c", "grep flags /proc/self/fdinfo/1"}, file.c_str(), 5);
        std::smatch match;
        const std::string text = ReadFile(file);
        EXPECT_TRUE(std::regex_search(text, match, std::regex("flags:\\s+([0-7]+)"))) << text;
        return match.empty() ? 0 : std::stoi(match[1], nullptr, 8);
    };
    const int power = flagsOfStdout(root_.Sub("dumpsys_by_power_1"));
    const int plain = flagsOfStdout(root_.Sub("dumpsys_other"));
    EXPECT_EQ(power & O_SYNC, O_SYNC);
    EXPECT_EQ(power & O_APPEND, O_APPEND);
    EXPECT_EQ(plain & O_SYNC & ~O_DSYNC, 0);
    EXPECT_EQ(plain & O_APPEND, O_APPEND);
    // A capture file the child cannot open: the reason on its standard error.
    const std::string missing = root_.Sub("missing/dir/cap");
    testing::internal::CaptureStderr();  // where what a forked child logs goes
    CaptureLogUtil::run_command({"true"}, missing.c_str(), 5);
    const std::string childLog = testing::internal::GetCapturedStderr();
    EXPECT_NE(childLog.find("failed to open " + missing + ": No such file or directory\n"), std::string::npos);
    // Nor can the runner append its result line: it says so instead.
    EXPECT_TRUE(Logged(log_, "Open log file failed. err: No such file or directory. log path: " + missing + "\n"));
}

// Children ending on one capture thread must not cut short, or time out, the waits of another.
TEST_F(CommandRunnerTest, ConcurrentRunsDoNotDisturbEachOther) {
    const std::string slow = root_.Sub("slow");
    // With SIGCHLD blocked (the threads inherit it) every child's end is a signal any waiter could take.
    sigset_t chld, oldMask;
    sigemptyset(&chld);
    sigaddset(&chld, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &chld, &oldMask);
    std::atomic<bool> slowDone{false};
    std::thread slowRunner([&] {
        CaptureLogUtil::run_command({"sh", "-c", "sleep 1.5; echo done; exit 4"}, slow.c_str(), 4);
        slowDone = true;
    });
    // Children keep ending on this thread for as long as the slow one runs.
    std::atomic<int> liteFailures{0};
    std::atomic<int> fastRuns{0};
    std::thread busy([&] {
        while (!slowDone || fastRuns < 20) {
            CaptureLogUtil::run_command({"sleep", "0.02"}, root_.Sub("fast").c_str(), 4);
            if (CmdTool::run_command_lite("sleep", "0.02", 4) != 0) ++liteFailures;
            ++fastRuns;
        }
    });
    // Children not the runners' own end meanwhile too; a runner that never returns fails the wait.
    ASSERT_TRUE(WaitFor([&] {
        const pid_t other = fork();
        if (other == 0) _exit(0);
        waitpid(other, nullptr, 0);
        return slowDone.load();
    }));
    busy.join();
    slowRunner.join();
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    EXPECT_EQ(liteFailures.load(), 0);
    const std::string text = ReadFile(slow);
    EXPECT_TRUE(std::regex_search(
        text, std::regex("done\n\\*\\*\\* sh: Exit code 4, [0-9]+\n\\[sh: [1-9][0-9]*\\.[0-9]{3}s elapsed\\]\n\n$")))
        << text;
    const std::string fast = ReadFile(root_.Sub("fast"));
    EXPECT_EQ(std::count(fast.begin(), fast.end(), '['), fastRuns.load()) << fast;
    EXPECT_EQ(fast.find("***"), std::string::npos) << fast;
    EXPECT_FALSE(log_.Contains("Waiting for pid"));
    EXPECT_FALSE(log_.Contains("Timed out"));
    EXPECT_FALSE(log_.Contains("killing pid"));
}

TEST_F(CmdToolTest, SplitsParametersAndReportsInTheLog) {
    const std::string out = root_.Sub("args");
    const std::string script = root_.Sub("record.sh");
    WriteFile(script, "#!/bin/sh\nprintf '%s\\n' \"$#\" \"$@\" > '" + out + "'\nexit 3\n");
    chmod(script.c_str(), 0755);
    EXPECT_EQ(CmdTool::run_command_lite(script.c_str(), "-a,,-b", 5), 0);
    EXPECT_EQ(ReadFile(out), "2\n-a\n-b\n");
    EXPECT_TRUE(CmdToolLogged(log_, "*** " + script + ": Exit code 3\n"));
    const std::string tag = platform::DefaultLogTag();
    EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\[" + Literal(script) + ": 0\\.[0-9]{3}s elapsed57\\]\n\n", tag,
                           ANDROID_LOG_DEBUG),
              "");
    // 1023 bytes still pass as one parameter.
    const std::string longest(1023, 'p');
    EXPECT_EQ(CmdTool::run_command_lite(platform::ToUtf16(script), platform::ToUtf16(longest), 5), 0);
    EXPECT_EQ(ReadFile(out), "1\n" + longest + "\n");
    unlink(out.c_str());

    const std::tuple<std::string, std::string, std::string> failures[] = {  // program, parameters, child's line
        {script, std::string(1024, 'p'), "*** param too long: 1024 bytes"},
        {"tarnis-no-such-tool", "", "*** exec(tarnis-no-such-tool): No such file or directory"},
        {"", "x", "*** exec(): No such file or directory"},
    };
    for (const auto& [program, params, childLine] : failures) {
        SCOPED_TRACE(program);
        log_.Clear();
        testing::internal::CaptureStderr();
        EXPECT_EQ(CmdTool::run_command_lite(program.c_str(), params.c_str(), 5), 0);
        // What a forked child logs reaches only standard error.
        const std::string line = std::string(" E ") + platform::DefaultLogTag() + ": dorvad cmdtool " + childLine;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(line + "\n"), std::string::npos);
        EXPECT_TRUE(CmdToolLogged(log_, "*** " + program + ": Exit code 255\n"));
    }
    EXPECT_FALSE(Exists(out));  // the script never ran
    EXPECT_EQ(CmdTool::run_command_lite(static_cast<const char*>(nullptr), "", 5), -1);
    // A clean exit adds no line of its own, only the elapsed one.
    log_.Clear();
    EXPECT_EQ(CmdTool::run_command_lite("true", "", 5), 0);
    EXPECT_EQ(log_.Count("***"), 0u);
    EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\[true: 0\\.[0-9]{3}s elapsed57\\]\n\n", tag, ANDROID_LOG_DEBUG), "");
}

// A negative time-out fails as a failed wait does and still ends the child; 0 times out at once.
TEST_F(CmdToolTest, TimeoutsAndFailedWaitsEndTheChildAndSaySo) {
    const std::pair<int, std::string> cases[] = {
        {1, "Timed out after 1\\.[0-9]{3}s"}, {0, "Timed out after 0\\.[0-9]{3}s"}, {-1, "Error after 0\\.[0-9]{4}s"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        log_.Clear();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(CmdTool::run_command_lite("sleep", "30", c.first), -1);
        // The child went at SIGTERM: no grace was waited out.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
        EXPECT_NE(LineMatching(log_, "dorvad cmdtool \\*\\*\\* sleep: " + c.second + " \\(killing pid [0-9]+\\)\n",
                               platform::DefaultLogTag(), ANDROID_LOG_ERROR),
                  "");
        EXPECT_EQ(CmdToolLogged(log_, "*** sigtimedwait failed: Invalid argument\n"), c.first < 0);
        EXPECT_EQ(log_.Count(c.first < 0 ? "Timed out" : "sigtimedwait"), 0u);
        EXPECT_EQ(log_.Count("Cannot kill"), 0u);
        EXPECT_EQ(log_.Count("elapsed57"), 0u);
    }
}

TEST_F(ChildWaitTest, StopsAChildThatIgnoresSigtermWithSigkillAfterTheGrace) {
    const std::string record = root_.Sub("signals");
    const std::string ready = root_.Sub("ready");
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string script = "trap 'echo TERM >> " + record + "' TERM; : > " + ready +
                                   "; while :; do sleep 0.05; done";
        execl("/bin/sh", "sh", "-c", script.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(pid, 0);
    ChildWait child(pid);
    ASSERT_TRUE(WaitFor([&] { return access(ready.c_str(), F_OK) == 0; }));
    // Still running: a look that does not wait says so.
    EXPECT_EQ(child.Wait(0, nullptr, nullptr), ChildWait::kTimedOut);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(child.Stop("dorvad", ""));
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // SIGTERM first, noted and ignored; SIGKILL only after the one-second grace.
    EXPECT_EQ(ReadFile(record), "TERM\n");
    EXPECT_GE(took, 0.95);
    EXPECT_LT(took, 2.5);
    // Reaped by Stop: nothing left to wait for, and nothing to signal.
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(child.Signal(SIGKILL), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(ChildWaitTest, ReportsAFailedWaitInTheRunnersWords) {
    const pid_t pid = Sleeper();
    ChildWait child(pid);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);  // someone else reaps it
    EXPECT_FALSE(child.WaitAndLog(1, nullptr, "dorvad", ""));
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(Logged(log_, "*** waitpid failed: No child processes\n"));
}

// A child reaped elsewhere may have its pid reused; only the pidfd still names the child that ended.
TEST_F(ChildWaitTest, NeverSignalsAProcessThatReusedThePid) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root (a pid namespace of its own, where pids are reused)";
    const pid_t lab = fork();
    ASSERT_GE(lab, 0);
    if (lab == 0) {
        if (unshare(CLONE_NEWPID) != 0) _exit(77);
        const pid_t init = fork();  // pid 1 of the new namespace
        if (init == 0) _exit(SignalAfterThePidWasReused());
        int status = 0;
        waitpid(init, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 99);
    }
    int status = 0;
    ASSERT_EQ(waitpid(lab, &status, 0), lab);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "skipped: needs CAP_SYS_ADMIN (unshare(CLONE_NEWPID) refused)";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "check " << WEXITSTATUS(status) << " failed";
}
