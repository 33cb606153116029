#pragma once

// The crash monitor suite's fixture: a sandbox with the partition, the collector's directory and the tool.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "modules/AndroidCrashMonitor/AndroidCrashMonitorThread.h"
#include "tests/support/ModABlackBox.h"
#include "tests/support/ModBModuleTest.h"
#include "tests/support/WaitFor.h"
#include "utils/BlackBoxLayout.h"
#include "utils/Cryptography.h"

namespace crash_monitor_test {

namespace bb = velmar::kolto::blackbox;
using android::base::GetProperty;
using android::base::SetProperty;
using tarnis_test::RandomBytes;
using tarnis_test::ReadFile;
using tarnis_test::RunShell;
using tarnis_test::WaitFor;
using velmar::tarnis::AndroidCrashMonitorThread;
using namespace moda_blackbox;

constexpr char kTag[] = "AndroidCrashMonitor";
constexpr char kStatus[] = "vendor.blackbox.write.status";

inline bool StatusIs(const std::string& value) { return GetProperty(kStatus, "") == value; }

class AndroidCrashMonitorTest : public tarnis_test::ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        partition_ = Device("/dev/block/by-name/blackbox");
        for (const char* dir : {"/dev/block/by-name", "/data/aee_exp", "/proc"}) {
            ASSERT_EQ(system(("mkdir -p '" + Device(dir) + "'").c_str()), 0);
        }
        MakeImage(partition_, 190 << 20);
        SetProperty("ro.build.version.incremental", "eng.1234");
    }
    void TearDown() override {
        AndroidCrashMonitorThread::SetWriteHookForTesting(nullptr);
        ModuleTest::TearDown();
    }

    // A database as the collector leaves it, announced through its property.
    std::string MakeDb(const std::string& name, const std::string& content) {
        const std::string dir = Device("/data/aee_exp/" + name);
        EXPECT_EQ(mkdir(dir.c_str(), 0770), 0);
        EXPECT_TRUE(android::base::WriteStringToFile(content, dir + "/" + name + ".dbg"));
        EXPECT_TRUE(SetProperty("vendor.debug.mtk.aee.db", "/data/aee_exp/" + name));
        return dir + "/" + name + ".dbg";
    }
    // MakeDb, then what the monitor's thread does on the collector's event.
    std::string Handle(AndroidCrashMonitorThread& worker, const std::string& name, const std::string& content) {
        const std::string path = MakeDb(name, content);
        bool encrypt = false;
        worker.HandleFatalDb(&encrypt);
        return path;
    }
    void AppendHistory(const std::string& line) {
        ASSERT_TRUE(std::ofstream(Device("/data/aee_exp/db_history"), std::ios::app) << line << "\n");
    }
    // Runs `work` on a thread of its own while `drive` runs here; true when `work` returned within ten
    // seconds. One still held then is let go by `release`, so that the test fails rather than hangs.
    static bool Returns(const std::function<void()>& work, const std::function<void()>& drive,
                        const std::function<void()>& release) {
        std::atomic<bool> returned{false};
        std::thread thread([&] {
            work();
            returned = true;
        });
        drive();
        const bool inTime = WaitFor([&] { return returned.load(); });
        if (!inTime) release();
        thread.join();
        return inTime;
    }

    // The collector's directory appears once the module waits for it: the watch's listener never idles.
    void LoadModulesThenCollectorDir() {
        const std::string dir = Device("/data/aee_exp");
        ASSERT_EQ(rename(dir.c_str(), (dir + ".stage").c_str()), 0);
        LoadModules();
        ASSERT_EQ(rename((dir + ".stage").c_str(), dir.c_str()), 0);
        clock_.Advance(1000);
    }

    bool HasInfo(const std::string& text) { return log_.HasLine(text, kTag, ANDROID_LOG_INFO); }
    bool HasError(const std::string& text) { return log_.HasLine(text, kTag, ANDROID_LOG_ERROR); }

    bb::FwMinidumpHeader Fw() { return ReadRecordAt<bb::FwMinidumpHeader>(partition_, bb::kFwMinidumpHeaderOffset); }
    void PutFw(const bb::FwMinidumpHeader& fw) { WriteRecordAt(partition_, bb::kFwMinidumpHeaderOffset, fw); }
    // The ring's header whole, "index I, filled F, next N | [name] position size" per slot, from the area's start.
    std::string Ring() {
        const bb::FwMinidumpHeader fw = Fw();
        const auto at = [](uint64_t position) {
            return position == 0 ? std::string("none") : "+" + std::to_string(position - bb::kFwAreaStart);
        };
        std::string out = "index " + std::to_string(fw.index) + ", filled " + std::to_string(fw.filled) + ", next " +
                          at(fw.nextPosition);
        for (int i = 0; i < bb::kFwSlots; ++i) {
            out += " | [" + std::string(fw.name[i], strnlen(fw.name[i], bb::kFwNameBytes)) + "] " +
                   at(fw.position[i]) + " " + std::to_string(fw.size[i]);
        }
        return out;
    }

    // The tool's verdict on the partition: exit status 1 and exactly this reason.
    void ExpectRefused(const std::string& reason) {
        int status = -1;
        const std::string out = Tool(partition_, &status);
        EXPECT_EQ(status, 1) << out;
        EXPECT_EQ(out, "tarnis-blackbox: " + partition_ + ": damaged image: " + reason + "\n");
    }
    std::string Extract(const std::string& outDir, int* status, const std::string& key = kTestKey) {
        return Tool(partition_ + " extract --key " + key + " --out " + outDir, status);
    }
    // The directory where the tool decrypted every listed slot's database.
    std::string ExtractAll() {
        const std::string dir = root_.Sub("extracted");
        RunShell("rm -rf '" + dir + "'; mkdir '" + dir + "'");
        int status = -1;
        const std::string out = Extract(dir, &status);
        EXPECT_EQ(status, 0) << out;
        return dir + "/";
    }

    std::string partition_;
};

}  // namespace crash_monitor_test
