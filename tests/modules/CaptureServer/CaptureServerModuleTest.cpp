#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include <aidl/vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/binder_manager.h>
#include <android/sharedmem.h>
#include <cutils/sockets.h>
#include <host/Host.h>
#include <log/log.h>

#include "modules/CaptureServer/CaptureServerThread.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/WaitFor.h"

namespace {

using aidl::vendor::velmar::hardware::kolto::common::Ashmem;
using aidl::vendor::velmar::hardware::kolto::common::BnKoltoImpl;
using android::CaptureServerThread;
using android::base::unique_fd;
using tarnis_test::ModeOf;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WaitFor;
using tarnis_test::WriteFile;

constexpr char kTag[] = "CaptureServerThread";

// The vendor HAL, served in-process (the binder suite checks the region's way between processes).
class FakeKolto : public BnKoltoImpl {
public:
    ndk::ScopedAStatus GetFileSize(const std::string& directory, const std::string& fileName,
                                   int64_t* size) override {
        struct stat st;
        if (stat(platform::DevicePath(directory + "/" + fileName).c_str(), &st) != 0) {
            return ndk::ScopedAStatus::fromServiceSpecificError(-errno);
        }
        *size = st.st_size;
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus ReadFromFile(const std::string& directory, const std::string& fileName, const Ashmem& region,
                                    int64_t size) override {
        std::string bytes;
        if (!android::base::ReadFileToString(platform::DevicePath(directory + "/" + fileName), &bytes) ||
            static_cast<int64_t>(bytes.size()) < size || region.size != size ||
            static_cast<int64_t>(ASharedMemory_getSize(region.fd.get())) < size ||
            pwrite(region.fd.get(), bytes.data(), size, 0) != size) {
            return ndk::ScopedAStatus::fromServiceSpecificError(-EINVAL);
        }
        return ndk::ScopedAStatus::ok();
    }
};

class CaptureServerModuleTest : public tarnis_test::ModBModuleTest {
protected:
    void SetUp() override {
        ModBModuleTest::SetUp();
        for (const char* dir : {"/mnt/rescue", "/cache", "/data/nuvilog/stability/reboot", "/data/vendor/zeltee"}) {
            RunShell("mkdir -p '" + Device(dir) + "'");
        }
        android::base::SetProperty("ro.build.ab_update", "true");
        android::base::SetProperty("ro.product.device", "host");
        android::base::SetProperty("ro.build.version.incremental", "7");
        // Each tool says how it was called; logcat prints "big", when there is one, to make the archive large.
        const std::string echo = "#!/bin/sh\necho \"$(basename \"$0\") $*\"\n";
        for (const std::string tool : {"uptime", "df", "dumpsys", "getprop"}) PlantDevice("/bin/" + tool, echo, true);
        const std::string big = Device("/big");
        PlantDevice("/bin/logcat", "#!/bin/sh\n[ -f '" + big + "' ] && cat '" + big + "'\nexit 0\n", true);
        oldPath_ = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", (Device("/bin") + ":" + oldPath_).c_str(), 1);
        std::string why;
        ASSERT_TRUE(platform::host::ProvideControlSocket("dorvad", &why)) << why;
        CaptureServerThread::SetIoTimeoutMsForTesting(300);
    }
    void TearDown() override {
        ModBModuleTest::TearDown();
        if (const char* fd = getenv("ANDROID_SOCKET_dorvad")) close(atoi(fd));
        unsetenv("ANDROID_SOCKET_dorvad");
        setenv("PATH", oldPath_.c_str(), 1);
    }

    std::string Exchange(const std::string& bytes) {
        unique_fd fd(socket_local_client("dorvad", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
        EXPECT_TRUE(fd.ok()) << strerror(errno);
        if (!fd.ok()) return "";
        EXPECT_TRUE(android::base::WriteFully(fd.get(), bytes.data(), bytes.size()));
        return ReadReply(fd.get());
    }
    static std::string ReadReply(int fd) {
        const struct timeval limit = {60, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        std::string reply;
        android::base::ReadFdToString(fd, &reply);
        return reply;
    }
    std::string Request(const std::string& name) {
        return Exchange(std::string{0, 0, 0, static_cast<char>(name.size())} + name);
    }

    std::string LastCapturePath() {
        std::string path;
        for (const platform::LogLine& line : log_.Lines()) {
            if (line.tag == kTag && line.text.rfind("dorvad dump to: ", 0) == 0) {
                path = line.text.substr(16, line.text.size() - 17);
            }
        }
        return path;
    }

    std::string oldPath_;
};

TEST_F(CaptureServerModuleTest, RequestsAreReadByTheLastHeaderByteLandInTheirBaseAndNoClientHoldsTheServer) {
    LoadModules();
    EXPECT_TRUE(log_.HasLine("[OnInit] tarnis CaptureServer OnInit", "Tarnis-CaptureServer", ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] load CaptureServer", "Tarnis-CaptureServerModule"));

    // The 0x01 in the header is not part of the length.
    EXPECT_EQ(Exchange(std::string{0, 0, 1, 5} + "Crash" + "trailing bytes are never read"), "finish");
    EXPECT_TRUE(log_.HasLine("content size :5", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_.HasLine("dorvad dump begin for dump request: Crash\n", kTag, ANDROID_LOG_DEBUG));
    EXPECT_TRUE(log_.HasLine("dorvad dump end for dump request\n", kTag, ANDROID_LOG_DEBUG));
    const std::string crash = Device("/mnt/rescue/dorva/") + "/Crash/Crash_host_7_";  // an A/B device
    EXPECT_EQ(LastCapturePath().substr(0, crash.size()), crash);
    // No vendor service runs here: the look-up gives up at once.
    EXPECT_TRUE(log_.HasLine("Attempting to obtain the Kolto service", kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("Kolto service cannot obtain", kTag, ANDROID_LOG_ERROR));

    // Reboot-kind failures are recorded with the stability records instead.
    EXPECT_EQ(Request("VoldFailed"), "finish");
    const std::string vold = Device("/data/nuvilog/stability/reboot/") + "/VoldFailed/VoldFailed_host_7_";
    EXPECT_EQ(LastCapturePath().substr(0, vold.size()), vold);
    EXPECT_TRUE(log_.HasLine("dorvad dump to: " + LastCapturePath() + "\n", kTag, ANDROID_LOG_INFO));
    EXPECT_EQ(ModeOf(Device("/data/nuvilog/stability/reboot/VoldFailed")), S_IFDIR | 0775u);
    // Missing secure-world logs cannot be made readable; without their log daemon they are the kernel's.
    EXPECT_TRUE(log_.HasLine("chmod failed: No such file or directory\n", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("run_command: cat " + Device("/proc/tzdbg/qsee_log") + "\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("run_command: cat " + Device("/proc/tzdbg/log") + "\n", "dorvad", ANDROID_LOG_ERROR));
    EXPECT_FALSE(log_.Contains("run_command: dumpsys package"));

    // Names that are not plain are refused, yet answered, and nothing is made.
    log_.Clear();
    const std::string before = RunShell("cd '" + root_.path() + "' && find mnt cache data | sort");
    const std::vector<std::pair<std::string, std::string>> refused = {
        {".", "."}, {"", ""}, {"a/b", "a/b"}, {"..", ".."},
        {std::string("ab\0c", 4), "ab\\x00c"}, {"new\nline", "new\\x0aline"}};
    for (const auto& [name, shown] : refused) {
        EXPECT_EQ(Request(name), "finish") << shown;
        EXPECT_TRUE(log_.HasLine("refusing dump request " + shown + ": not a plain name", kTag, ANDROID_LOG_ERROR))
            << shown;
    }
    EXPECT_EQ(RunShell("cd '" + root_.path() + "' && find mnt cache data | sort"), before);
    EXPECT_FALSE(log_.Contains("dorvad dump begin"));

    // Clients that stall (connected, silent, never closing) or leave after half their request do not hold the server.
    unique_fd silent(socket_local_client("dorvad", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
    ASSERT_TRUE(silent.ok());
    {
        unique_fd partial(socket_local_client("dorvad", ANDROID_SOCKET_NAMESPACE_RESERVED, SOCK_STREAM));
        ASSERT_TRUE(partial.ok());
        ASSERT_TRUE(android::base::WriteStringToFd(std::string{0, 0, 0, 9} + "Boot", partial.get()));
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Request("Crash"), "finish");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_TRUE(log_.HasLine("read header failed: Connection timed out\n", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("read json failed: Connection reset by peer\n", kTag, ANDROID_LOG_ERROR));
    EXPECT_TRUE(log_.HasLine("dorvad dump begin for dump request: Crash\n", kTag));
    EXPECT_EQ(ReadReply(silent.get()), "");
    EXPECT_NE(Dump({"CaptureServer"}).find("dorvad: running\nrequests: 3 served, 6 refused, 2 dropped\n"),
              std::string::npos);
}

TEST_F(CaptureServerModuleTest, ArchiveKeptFromOneKilobyteReplacesItsKindAndEndsWithTheFailedPackage) {
    const std::string dir = Device("/mnt/rescue/dorva/BootFailure");
    RunShell("mkdir -p '" + dir + "'");
    for (const char* old : {"BootFailure_host_7_2025-01-01_00-00-00.zip", "RescuePartyLog_x.zip", "VoldFailed",
                            "notes.txt", "VoldFailed_1.zip"}) {
        ASSERT_TRUE(WriteFile(dir + "/" + old, "old"));
    }
    const std::string planted = RunShell("cd '" + dir + "' && ls");
    LoadModules();
    // Under 1,024 bytes (only the tools' names) the archive goes, and nothing else does.
    ASSERT_EQ(Request("BootFailure"), "finish");
    EXPECT_TRUE(log_.HasLine("log too small, ready to delete.", kTag, ANDROID_LOG_WARN));
    EXPECT_EQ(RunShell("cd '" + dir + "' && ls"), planted);  // neither the archive nor the text it took in

    log_.Clear();
    RunShell("head -c 6000 /dev/urandom | base64 > '" + Device("/big") + "'");  // an archive well over 1,024 bytes
    android::base::SetProperty("sys.rescue_party_failed_package", "com.example.app");
    android::base::SetProperty("init.svc.qseelogd", "running");
    ASSERT_EQ(Request("BootFailure"), "finish");
    const std::string kept = LastCapturePath() + ".zip";
    EXPECT_GE(ReadFile(kept).size(), 1024u);
    EXPECT_FALSE(log_.Contains("log too small"));
    EXPECT_EQ(RunShell("cd '" + dir + "' && ls"),
              kept.substr(kept.rfind('/') + 1) + "\nVoldFailed_1.zip\nnotes.txt\n");
    // Each step under its heading with its time-out; the secure-world logs are the running log daemon's copies.
    EXPECT_EQ(RunShell("unzip -p '" + kept + "' '*BootFailure_host_7_*' | grep -B1 --no-group-separator '^------ ('"),
              "UPTIME\n------ (uptime -p) in 1s ------\nFILESYSTEMS & FREE SPACE\n------ (df) in 1s ------\n"
              "FILESYSTEMS & FREE INODES\n------ (df -i) in 1s ------\n"
              "MAIN,SYSTEM,EVENTS,CRASH LOGS\n------ (logcat -b main,system,events,crash -v uid -d *:v) in 10s ------\n"
              "DROPBOX SYSTEM SERVER CRASHES\n------ (dumpsys dropbox -p system_server_crash) in 1s ------\n"
              "DROPBOX SYSTEM SERVER WATCHDOG\n------ (dumpsys dropbox -p system_server_watchdog) in 1s ------\n"
              "DROPBOX SYSTEM APP CRASHES\n------ (dumpsys dropbox -p system_app_crash) in 1s ------\n"
              "SYSTEM PROPERTIES\n------ (getprop) in 1s ------\n"
              "SECURITY QSEE LOG\n------ (cat " + Device("/data/cache/qseelog/qsee_log_00") + ") in 4s ------\n"
              "SECURITY TZ LOG\n------ (cat " + Device("/data/cache/qseelog/tzlog_00") + ") in 1s ------\n"
              "MTK SECURITY LOG\n------ (cat " + Device("/mnt/rescue/dorva/") + "/zeltee.log) in 1s ------\n"
              "SPRD SECURITY LOG\n------ (cat " + Device("/dev/trusty-log0") + ") in 1s ------\n"
              "DUMPSYS PACKAGE\n------ (dumpsys package com.example.app) in 1s ------\n");
}

TEST_F(CaptureServerModuleTest, WithoutItsSocketTheServerEndsAndRemovesItsModule) {
    if (const char* fd = getenv("ANDROID_SOCKET_dorvad")) close(atoi(fd));
    unsetenv("ANDROID_SOCKET_dorvad");
    LoadModules();
    ASSERT_TRUE(WaitFor([this] { return log_.Contains("quited!!"); }));
    WaitIdle();
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] CaptureServer done~", "Tarnis-CaptureServerModule"));
    EXPECT_TRUE(log_.HasLine("[OnAllModulesLoaded] quited!!", "Tarnis-CaptureServerModule"));
    EXPECT_TRUE(Stopped("CaptureServer"));
}

TEST_F(CaptureServerModuleTest, SecureWorldLogComesThroughTheVendorServiceInSharedMemory) {
    const auto kolto = ndk::SharedRefBase::make<FakeKolto>();
    ASSERT_EQ(AServiceManager_addService(kolto->asBinder().get(), CaptureServerThread::kKoltoInstance), STATUS_OK);
    const std::string copy = Device("/mnt/rescue/dorva/") + "/zeltee.log";
    {
        // Nothing to read yet: the size query fails and no copy is made.
        CaptureServerThread worker;
        EXPECT_TRUE(log_.HasLine("Successfully obtained the Kolto service", kTag, ANDROID_LOG_INFO));
        EXPECT_TRUE(log_.HasLine("zelteelog_path is: " + copy + "\n", kTag, ANDROID_LOG_INFO));
        EXPECT_TRUE(log_.HasLine("koltoReadMtkSecurityLog GetFileSize failed, error = -2", kTag, ANDROID_LOG_ERROR));
        EXPECT_EQ(ModeOf(copy), 0u);
    }
    std::string bytes;
    for (int i = 0; i < 5000; ++i) bytes += static_cast<char>(i * 7);  // NULs and all
    ASSERT_TRUE(WriteFile(Device("/data/vendor/zeltee/zeltee.log"), bytes));
    // A link planted at the copy's name is replaced, not written through.
    const std::string outside = Device("/outside");
    ASSERT_TRUE(WriteFile(outside, "untouched"));
    ASSERT_EQ(symlink(outside.c_str(), copy.c_str()), 0);
    log_.Clear();
    CaptureServerThread worker;
    const std::string read = " success:, filepath:/data/vendor/zeltee//zeltee.log size is 5000.";
    EXPECT_TRUE(log_.HasLine("koltoReadMtkSecurityLog GetFileSize" + read, kTag, ANDROID_LOG_INFO));
    EXPECT_TRUE(log_.HasLine("koltoReadMtkSecurityLog ReadFromFile" + read, kTag, ANDROID_LOG_INFO));
    EXPECT_EQ(ReadFile(copy), bytes);
    EXPECT_EQ(ReadFile(outside), "untouched");
}

}  // namespace
