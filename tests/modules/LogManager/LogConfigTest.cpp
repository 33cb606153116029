#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <json/json.h>
#include <log/log.h>
#include <platform/LogCapture.h>

#include "modules/LogManager/LogConfig.h"
#include "modules/LogManager/LogManagerUtil.h"
#include "utils/JsonUtil.h"

namespace {

using velmar::kolto::JsonUtil;
using velmar::kolto::LogConfig;
using velmar::kolto::LogManagerUtil;

constexpr char kTag[] = "Tarnis-LogManagerUtil";

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
        {R"({"children":null})", false, ""},
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
    // The member list and the key list must stay in step.
    Json::Value json = Parse(R"({"folderName":"a"})");
    std::vector<std::string> shortNames{"folderName"};
    EXPECT_FALSE(record.TARNIS_CONVER_JSON_TO_OBJECT(json, shortNames));
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
    // A top-level folderName that is also a later record's child's full path.
    EXPECT_EQ(numberOf("/data/nuvilog/bsp/a/b"), 1u);
    EXPECT_EQ(numberOf("/data/nuvilog/bsp/a"), 2u);
    EXPECT_EQ(numberOf("b"), 3u);
    EXPECT_EQ(numberOf("d"), 6u);
    // A child lives where its parent does; a path of its own is taken as it is.
    EXPECT_EQ(numberOf("/data/vendor/bsplog/v"), 8u);
    EXPECT_EQ(numberOf("/data/vendor/bsplog/v/w"), 9u);
    EXPECT_EQ(numberOf("/x/y/q"), 10u);
    EXPECT_EQ(numberOf("/z"), 11u);
    // The child of an earlier record comes before a later top-level record.
    const std::vector<LogConfig> tail(list.begin() + 3, list.end());
    const auto child = LogManagerUtil::GetConfigByFolderName("/data/nuvilog/bsp/c/d", tail);
    ASSERT_TRUE(child.has_value());
    EXPECT_EQ(child->maxLogNumber, 6u);
    ASSERT_NE(child->parent, nullptr);
    EXPECT_EQ(child->parent->folderName, "c");

    platform::LogCapture log;
    EXPECT_FALSE(LogManagerUtil::GetConfigByFolderName("nothing", list).has_value());
    EXPECT_TRUE(log.HasLine("[GetConfigByFolderName] ERR! config not found for nothing", kTag, ANDROID_LOG_ERROR));

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
    EXPECT_TRUE(log.HasLine("[ReadConfigFile] " + why, kTag, ANDROID_LOG_ERROR));

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

}  // namespace
