#include <gtest/gtest.h>
#include <sys/time.h>

#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"
#include "utils/TimeUtil.h"

using velmar::kolto::FileUtil;
using velmar::kolto::JsonUtil;
using velmar::kolto::StringUtil;
using velmar::kolto::TimeUtil;

namespace {

std::string Tail(std::string path, int n) {
    StringUtil::getTailPath(path, n);
    return path;
}

}  // namespace

TEST(StringUtilTest, TrimAndAffixTests) {
    EXPECT_EQ(StringUtil::TrimStr("///", '/'), "");
    EXPECT_EQ(StringUtil::TrimStr("", '/'), "");
    EXPECT_EQ(StringUtil::TrimStr("/a/b/", '/'), "a/b");
    EXPECT_EQ(StringUtil::TrimStr("xxaxbxx", 'x'), "axb");
    EXPECT_EQ(StringUtil::TrimStr("a", 'x'), "a");

    EXPECT_TRUE(StringUtil::StartsWith("abc", ""));
    EXPECT_TRUE(StringUtil::StartsWith("abc", "abc"));
    EXPECT_FALSE(StringUtil::StartsWith("ab", "abc"));
    EXPECT_FALSE(StringUtil::StartsWith("abc", "b"));
    EXPECT_TRUE(StringUtil::EndsWith("abc", ""));
    EXPECT_TRUE(StringUtil::EndsWith("file.zip", ".zip"));
    EXPECT_FALSE(StringUtil::EndsWith("zip", ".zip"));
    EXPECT_FALSE(StringUtil::EndsWith("a.zip.tmp", ".zip"));
}

TEST(StringUtilTest, TailPathKeepsLastComponents) {
    EXPECT_EQ(Tail("/data/log/a/b.txt", 2), "a/b.txt");
    EXPECT_EQ(Tail("/data/log/a/b.txt", 1), "b.txt");
    // As many components as slashes: the whole path less its leading "/".
    EXPECT_EQ(Tail("/data/log/a/b.txt", 4), "data/log/a/b.txt");
    EXPECT_EQ(Tail("/data/log/a/b.txt", 5), "/data/log/a/b.txt");
    EXPECT_EQ(Tail("a/b", 3), "a/b");
    EXPECT_EQ(Tail("a/b", 0), "a/b");
    EXPECT_EQ(Tail("a/b", -2), "a/b");
    EXPECT_EQ(Tail("", 1), "");
    // The doubled slash that packaging inserts leaves the bare file name.
    EXPECT_EQ(Tail("/data/dorva/online//cap.txt", 2), "cap.txt");
    EXPECT_EQ(Tail("/data/dorva/online/dir/", 1), "");
}

TEST(FileUtilTest, HumanSizes) {
    EXPECT_EQ(FileUtil::formatHumanSize(0), "0 bytes");
    EXPECT_EQ(FileUtil::formatHumanSize(1), "1.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(512), "512.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(1023), "1023.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(1024), "1.00 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(1536), "1.50 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(1024UL * 1024), "1.00 MB");
    EXPECT_EQ(FileUtil::formatHumanSize(3UL << 30), "3.00 GB");
    EXPECT_EQ(FileUtil::formatHumanSize(2UL << 40), "2048.00 GB");
}

TEST(JsonUtilTest, RoundTripAndFailures) {
    Json::Value value;
    ASSERT_TRUE(JsonUtil::ConvertStringToJson(
        "// comments are allowed\n{ \"b\" : [true, \"x\"], \"a\" : 1 }", value));
    EXPECT_EQ(value["a"].asInt(), 1);
    EXPECT_EQ(value["b"][1].asString(), "x");
    // Compact, keys in order, one trailing newline.
    EXPECT_EQ(JsonUtil::ConvertJsonToString(value), "{\"a\":1,\"b\":[true,\"x\"]}\n");
    Json::Value text("\xc3\xa9\"\n");
    // The classic writer escapes non-ASCII; the peer expects exactly that.
    EXPECT_EQ(JsonUtil::ConvertJsonToString(text), "\"\\u00e9\\\"\\n\"\n");

    Json::Value broken;
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("{\"a\": ", broken));
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("", broken));
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("{\"a\" 1}", broken));
}

TEST(TimeUtilTest, ClocksAndConversion) {
    struct timeval before {};
    gettimeofday(&before, nullptr);
    const int64_t us = TimeUtil::getCurrentTimeUS();
    const int64_t ms = TimeUtil::getCurrentTimeMs();
    struct timeval after {};
    gettimeofday(&after, nullptr);
    const int64_t lo = int64_t(before.tv_sec) * 1000000 + before.tv_usec;
    const int64_t hi = int64_t(after.tv_sec) * 1000000 + after.tv_usec;
    EXPECT_GE(us, lo);
    EXPECT_LE(us, hi);
    EXPECT_GE(ms, lo / 1000);
    EXPECT_LE(ms, hi / 1000);

    struct timespec ts = TimeUtil::ms2ts(1500);
    EXPECT_EQ(ts.tv_sec, 1);
    EXPECT_EQ(ts.tv_nsec, 500000000);
    ts = TimeUtil::ms2ts(999);
    EXPECT_EQ(ts.tv_sec, 0);
    EXPECT_EQ(ts.tv_nsec, 999000000);
    ts = TimeUtil::ms2ts(86400123);
    EXPECT_EQ(ts.tv_sec, 86400);
    EXPECT_EQ(ts.tv_nsec, 123000000);
}
