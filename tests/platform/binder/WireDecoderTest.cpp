#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

#include "platform/binder/WireDecoder.h"

using android::WireDecoder;
using android::WireHeader;
using android::WireIo;
using android::WireMessage;

namespace {

std::string Frame(uint32_t code, const std::string& body, uint32_t fds) {
    WireHeader header{WireIo::kRequestMagic, code, static_cast<uint32_t>(body.size()), fds};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

android::base::unique_fd NullFd() { return android::base::unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

TEST(WireDecoderTest, MessagesComeOutWholeWhateverTheSplit) {
    WireDecoder decoder({WireIo::kRequestMagic});
    const std::string stream = Frame(7, "first", 1) + Frame(8, "", 0) + Frame(9, "third!", 2);
    WireMessage message;
    std::string error;
    std::vector<WireMessage> got;
    for (size_t i = 0; i < stream.size(); ++i) {
        // Descriptors ride on the first byte of their message.
        if (i == 0) decoder.fds()->push_back(NullFd());
        if (i == Frame(7, "first", 1).size() + Frame(8, "", 0).size()) {
            decoder.fds()->push_back(NullFd());
            decoder.fds()->push_back(NullFd());
        }
        decoder.buffer()->push_back(stream[i]);
        WireDecoder::Result result;
        while ((result = decoder.next(&message, &error)) == WireDecoder::Result::kMessage) {
            got.push_back(std::move(message));
        }
        ASSERT_EQ(result, WireDecoder::Result::kNeedMore) << error;
    }
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0].codeOrStatus, 7u);
    EXPECT_EQ(got[0].data, "first");
    EXPECT_EQ(got[0].fds.size(), 1u);
    EXPECT_EQ(got[1].data, "");
    EXPECT_TRUE(got[1].fds.empty());
    EXPECT_EQ(got[2].data, "third!");
    EXPECT_EQ(got[2].fds.size(), 2u);
    EXPECT_TRUE(decoder.empty());
}

TEST(WireDecoderTest, AStreamThatCannotBeValidIsRefusedAtOnce) {
    struct Case {
        std::string bytes;
        size_t fds;
        std::string error;
    } cases[] = {
        {Frame(1, "abcd", 1), 0, "malformed transaction (descriptors missing)"},
        {"GET / HTTP/1.0\r\n\r\n", 0, "malformed transaction (bad header)"},
        // Refused from the header alone, before the body would be buffered.
        {Frame(1, "", 0).substr(0, 8) + std::string("\x01\x00\x20\x00\x00\x00\x00\x00", 8), 0,
         "transaction of 2097153 bytes exceeds the limit of 1048576 bytes"},
        {Frame(1, "", 33), 0, "transaction with 33 descriptors exceeds the limit"},
        {"", WireIo::kMaxFds + 1, "more descriptors than any transaction carries"},
    };
    for (auto& c : cases) {
        WireDecoder decoder({WireIo::kRequestMagic});
        *decoder.buffer() = c.bytes;
        for (size_t i = 0; i < c.fds; ++i) decoder.fds()->push_back(NullFd());
        WireMessage message;
        std::string error;
        EXPECT_EQ(decoder.next(&message, &error), WireDecoder::Result::kError) << c.error;
        EXPECT_EQ(error, c.error);
    }
    // A reply decoder takes no requests.
    WireDecoder replies({WireIo::kReplyMagic, WireIo::kRefuseMagic});
    *replies.buffer() = Frame(1, "", 0);
    WireMessage message;
    std::string error;
    EXPECT_EQ(replies.next(&message, &error), WireDecoder::Result::kError);
}

}  // namespace
