#include <gtest/gtest.h>
#include <sys/time.h>

#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"
#include "utils/TimeUtil.h"

using namespace velmar::kolto;

namespace {
std::string Tail(std::string path, int n) {
    StringUtil::getTailPath(path, n);
    return path;
}
}  // namespace

TEST(StringUtilTest, TrimAffixesAndTailPaths) {
    EXPECT_EQ(StringUtil::TrimStr("///", '/'), "");
    EXPECT_EQ(StringUtil::TrimStr("/a/b/", '/'), "a/b");
    EXPECT_TRUE(StringUtil::StartsWith("abc", ""));
    EXPECT_FALSE(StringUtil::StartsWith("ab", "abc"));
    EXPECT_TRUE(StringUtil::EndsWith("f.zip", ".zip"));
    EXPECT_FALSE(StringUtil::EndsWith("zip", ".zip"));

    EXPECT_EQ(Tail("/data/log/a/b.txt", 2), "a/b.txt");
    EXPECT_EQ(Tail("/data/log/a/b.txt", 4), "data/log/a/b.txt");  // as many as slashes
    EXPECT_EQ(Tail("/data/log/a/b.txt", 5), "/data/log/a/b.txt");
    EXPECT_EQ(Tail("a/b", 3), "a/b");
    EXPECT_EQ(Tail("a/b", 0), "a/b");
    // The doubled slash that packaging inserts leaves the bare file name.
    EXPECT_EQ(Tail("/data/dorva/online//cap.txt", 2), "cap.txt");
}

TEST(FileUtilTest, HumanSizes) {
    EXPECT_EQ(FileUtil::formatHumanSize(0), "0 bytes");
    EXPECT_EQ(FileUtil::formatHumanSize(512), "512.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(1023), "1023.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(1024), "1.00 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(1536), "1.50 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(3UL << 30), "3.00 GB");
    EXPECT_EQ(FileUtil::formatHumanSize(2UL << 40), "2048.00 GB");
}

TEST(JsonUtilTest, RoundTripAndFailures) {
    Json::Value value;
    ASSERT_TRUE(JsonUtil::ConvertStringToJson("// note\n{ \"b\" : [true, \"\\u00e9\"], \"a\" : 1 }",
                                              value));
    // Compact, keys in order, non-ASCII escaped, one trailing newline.
    EXPECT_EQ(JsonUtil::ConvertJsonToString(value), "{\"a\":1,\"b\":[true,\"\\u00e9\"]}\n");
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("{\"a\": ", value));
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("", value));
}

TEST(TimeUtilTest, ClocksAndConversion) {
    struct timeval before {}, after {};
    gettimeofday(&before, nullptr);
    const int64_t us = TimeUtil::getCurrentTimeUS();
    const int64_t ms = TimeUtil::getCurrentTimeMs();
    gettimeofday(&after, nullptr);
    EXPECT_GE(us, int64_t(before.tv_sec) * 1000000 + before.tv_usec);
    EXPECT_LE(ms, (int64_t(after.tv_sec) * 1000000 + after.tv_usec) / 1000);
    EXPECT_GE(ms, us / 1000);
    const struct timespec ts = TimeUtil::ms2ts(86400123);
    EXPECT_EQ(ts.tv_sec, 86400);
    EXPECT_EQ(ts.tv_nsec, 123000000);
}
