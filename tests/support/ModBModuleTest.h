#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/ModuleTest.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

namespace tarnis_test {

// Writes `content` at `path`, making the directories above it first.
inline bool PlantFile(const std::string& path, const std::string& content) {
    RunShell("mkdir -p \"$(dirname '" + path + "')\"");
    return WriteFile(path, content);
}

// The whole st_mode of `path` itself, a link not followed; 0 when nothing is there.
inline unsigned ModeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0u;
}

// A thread running a loop that the test stops. Join() waits ten seconds for
// it: a loop that does not heed its stop ends the test program then, failed,
// instead of holding it until ctest's limit.
class StoppedThread {
public:
    explicit StoppedThread(std::function<void()> body)
        : thread_([this, body = std::move(body)] {
              body();
              done_ = true;
          }) {}
    ~StoppedThread() { Join(); }
    void Join() {
        if (!thread_.joinable()) return;
        if (!WaitFor([this] { return done_.load(); })) {
            fprintf(stderr, "FAILED: a loop told to stop still ran ten seconds later\n");
            abort();
        }
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A module suite whose module names files or schedules by local time: the
// zone is UTC for the test and the host's is put back after it.
class ModBModuleTest : public ModuleTest {
protected:
    void SetUp() override {
        const char* tz = getenv("TZ");
        hadTz_ = tz != nullptr;
        savedTz_ = hadTz_ ? tz : "";
        setenv("TZ", "UTC", 1);
        tzset();
        ModuleTest::SetUp();
    }
    void TearDown() override {
        ModuleTest::TearDown();
        if (hadTz_) {
            setenv("TZ", savedTz_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

    // The payloads of the journal's analytics reports, parsed, each checked to
    // come from app `appId` and source `source`; the raw texts go to `texts`.
    std::vector<Json::Value> TrelvoPayloads(const std::string& appId, const std::string& source,
                                            std::vector<std::string>* texts = nullptr) {
        std::vector<Json::Value> payloads;
        for (const Json::Value& call : JournalEvents()) {
            if (call["call"].asString() != "reportTrelvoEvent") continue;
            EXPECT_EQ(call["args"][0].asString(), appId);
            EXPECT_EQ(call["args"][1].asString(), source);
            EXPECT_EQ(call["args"][3].asInt(), 0);
            const std::string text = call["args"][2].asString();
            if (texts != nullptr) texts->push_back(text);
            Json::Value payload;
            EXPECT_TRUE(Json::Reader().parse(text, payload)) << text;
            payloads.push_back(payload);
        }
        return payloads;
    }

    // Whether the module manager's dump lists `module` as stopped.
    bool Stopped(const std::string& module) {
        return Dump({"ModuleManager", "dump"}).find(module + "\t\tStopped\n") != std::string::npos;
    }

private:
    std::string savedTz_;
    bool hadTz_ = false;
};

}  // namespace tarnis_test
