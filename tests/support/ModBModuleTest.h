#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "tests/support/ModuleTest.h"
#include "tests/support/TempDir.h"

namespace tarnis_test {

// The whole st_mode of `path` itself, a link not followed; 0 when nothing is there.
inline unsigned ModeOf(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0u;
}

// A module suite whose module names files or schedules by local time, in UTC.
class ModBModuleTest : public ModuleTest {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        ModuleTest::SetUp();
    }

    // The journal's analytics payloads, each checked to come from `appId` and `source`; raw texts to `texts`.
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

    // Plants `content` at device path `path`, executable when `tool`; returns its path below the root.
    std::string PlantDevice(const std::string& path, const std::string& content, bool tool = false) {
        const std::string file = Device(path);
        RunShell("mkdir -p \"$(dirname '" + file + "')\"");
        EXPECT_TRUE(WriteFile(file, content)) << file;
        EXPECT_EQ(tool ? chmod(file.c_str(), 0755) : 0, 0) << file;
        return file;
    }

    // Whether the module manager's dump lists `module` as stopped.
    bool Stopped(const std::string& module) {
        return Dump({"ModuleManager", "dump"}).find(module + "\t\tStopped\n") != std::string::npos;
    }
};

}  // namespace tarnis_test
