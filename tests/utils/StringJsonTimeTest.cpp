#include <gtest/gtest.h>

#include <log/log.h>

#include "platform/LogCapture.h"
#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"

using namespace velmar::kolto;

namespace {
std::string Tail(std::string path, int n) {
    StringUtil::getTailPath(path, n);
    return path;
}

std::string Nested(int depth, const std::string& open, const std::string& close, const std::string& inner) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += open;
    text += inner;
    for (int i = 0; i < depth; ++i) text += close;
    return text;
}
}  // namespace

TEST(StringUtilTest, SuffixesAndTailPaths) {
    EXPECT_TRUE(StringUtil::EndsWith("f.zip", ".zip"));
    EXPECT_FALSE(StringUtil::EndsWith("zip", ".zip"));

    EXPECT_EQ(Tail("/data/log/a/b.txt", 4), "data/log/a/b.txt");  // as many as slashes
    EXPECT_EQ(Tail("/data/log/a/b.txt", 5), "/data/log/a/b.txt");
    EXPECT_EQ(Tail("a/b", 3), "a/b");
    EXPECT_EQ(Tail("a/b", 0), "a/b");
}

TEST(StringUtilTest, ForLogKeepsTextEscapesEverythingElseAndCutsAtTheLimit) {
    EXPECT_EQ(StringUtil::ForLog(""), "");
    EXPECT_EQ(StringUtil::ForLog("velmar.tarnis.logmgr.config_append"), "velmar.tarnis.logmgr.config_append");
    // Valid UTF-8 (two, three and four bytes, and a no-break space) is kept.
    EXPECT_EQ(StringUtil::ForLog("h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0"),
              "h\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0");
    // A forged second log line or a terminal escape stays on one inert line.
    EXPECT_EQ(StringUtil::ForLog("a\nE Tarnis: fake\r\t\x1b[31m\x7f"),
              "a\\x0aE Tarnis: fake\\x0d\\x09\\x1b[31m\\x7f");
    // C1 controls are UTF-8 but escaped too.
    EXPECT_EQ(StringUtil::ForLog("\xc2\x9b" "2J"), "\\xc2\\x9b2J");
    // A backslash is doubled, so a client's "\x41" is not taken for an escaped byte.
    EXPECT_EQ(StringUtil::ForLog("C:\\x41"), "C:\\\\x41");
    // Not UTF-8: a stray continuation, 0xff, an overlong '/', a surrogate, beyond U+10FFFF, cut by the end.
    EXPECT_EQ(StringUtil::ForLog("\x80|\xff|\xc0\xaf|\xed\xa0\x80|\xf4\x90\x80\x80|\xe2\x82"),
              "\\x80|\\xff|\\xc0\\xaf|\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80|\\xe2\\x82");

    // No byte value is left raw unless it is printable.
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    for (unsigned char c : StringUtil::ForLog(all)) EXPECT_TRUE(c >= 0x20 && c < 0x7f) << int(c);

    // Cut at the limit leaving out whole what would cross it; the count is of the original bytes.
    EXPECT_EQ(StringUtil::ForLog(std::string(1024, 'a')), std::string(1024, 'a'));
    EXPECT_EQ(StringUtil::ForLog("abcdefghijklmno", 10), "abcdefghij...[5 more bytes]");
    EXPECT_EQ(StringUtil::ForLog("aaaaaaaa\x01" "b", 10), "aaaaaaaa...[2 more bytes]");
    EXPECT_EQ(StringUtil::ForLog("aaaaaaaaa\xe2\x82\xac", 10), "aaaaaaaaa...[3 more bytes]");
    EXPECT_EQ(StringUtil::ForLog("aaaaaaaaa\\", 10), "aaaaaaaaa...[1 more bytes]");
    EXPECT_EQ(StringUtil::ForLog("xyz", 0), "...[3 more bytes]");
}

TEST(FileUtilTest, HumanSizes) {
    EXPECT_EQ(FileUtil::formatHumanSize(0), "0 bytes");
    EXPECT_EQ(FileUtil::formatHumanSize(1023), "1023.00 BB");
    EXPECT_EQ(FileUtil::formatHumanSize(1024), "1.00 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(1536), "1.50 KB");
    EXPECT_EQ(FileUtil::formatHumanSize(2UL << 40), "2048.00 GB");
}

TEST(JsonUtilTest, DeepOrBrokenDocumentsAreRefusedWithOneShortReason) {
    platform::LogCapture capture;
    // The document and the offset of its 65th opening bracket.
    const std::pair<std::string, size_t> cases[] = {
        {Nested(1001, "[", "]", ""), 64},
        {Nested(1001, "{\"a\":", "}", "1"), 64 * 5},
    };
    for (const auto& [text, offset] : cases) {
        Json::Value value("left over");
        std::string error;
        EXPECT_FALSE(JsonUtil::ConvertStringToJson(text, value, &error));
        EXPECT_TRUE(value.isNull());
        EXPECT_EQ(error, "nesting deeper than 64 levels at byte " + std::to_string(offset));
    }
    EXPECT_TRUE(capture.HasLine("[ConvertStringToJson] nesting deeper than 64 levels at byte 64", "Tarnis-JsonUtil",
                                 ANDROID_LOG_ERROR));

    // The limit is exact.
    Json::Value value;
    ASSERT_TRUE(JsonUtil::ConvertStringToJson(Nested(64, "[", "]", "7"), value));
    EXPECT_FALSE(JsonUtil::ConvertStringToJson(Nested(65, "[", "]", "7"), value));

    // Brackets inside strings (escaped quotes included) and comments are no nesting.
    const std::string inString = "[\"" + std::string(1000, '[') + "\\\"" + std::string(1000, '{') + "\"]";
    ASSERT_TRUE(JsonUtil::ConvertStringToJson(inString, value));
    EXPECT_EQ(value[0].asString(), std::string(1000, '[') + "\"" + std::string(1000, '{'));
    ASSERT_TRUE(JsonUtil::ConvertStringToJson("// " + std::string(100, '[') + "\n/* " + std::string(100, '{') +
                                                  " */ [1] // " + std::string(100, '['),
                                              value));
    EXPECT_EQ(value[0].asInt(), 1);

    // Any other parse error: one short printable reason, nothing half-built.
    value = 5;
    std::string error;
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("{\"a\": ", value, &error));
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(error.rfind("not valid JSON at byte ", 0), 0u) << error;
    // jsoncpp quotes the offending token; a long one is cut.
    const std::string token = "1e" + std::string(5000, '9');
    EXPECT_FALSE(JsonUtil::ConvertStringToJson("[" + token + "]", value, &error));
    EXPECT_LE(error.size(), 256u + 32u);
    EXPECT_NE(error.find("more bytes]"), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_TRUE(capture.HasLine("[ConvertStringToJson] " + error, "Tarnis-JsonUtil", ANDROID_LOG_ERROR));
}

