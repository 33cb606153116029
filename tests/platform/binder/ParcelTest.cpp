// The bytes on the wire: parcels, and the frames that carry them.
#include <fcntl.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include <binder/ParcelFileDescriptor.h>

#include "platform/binder/Parcel.h"
#include "platform/binder/WireDecoder.h"

using android::Parcel;
using android::String16;
using android::WireDecoder;
using android::WireHeader;
using android::WireIo;
using android::WireMessage;
using android::base::unique_fd;

namespace {

// Received bytes and descriptors, as the transport hands them to a reader.
void Receive(const Parcel& sent, Parcel* received) {
    std::vector<unique_fd> fds;
    for (int fd : sent.rawFds()) fds.emplace_back(dup(fd));
    received->setData(sent.data(), std::move(fds));
}

// The types the generated classes of this daemon's own interfaces use that
// AidlAgreementTest (and ServiceTest's filtered socket) do not carry.
TEST(ParcelTest, EveryOtherTypeRoundTripsInOrder) {
    Parcel p;
    const String16 astral(u"caf\u00e9 \U0001F600");
    ASSERT_EQ(p.writeString16(astral), android::OK);
    p.writeString16Vector({String16(u"one"), astral});
    p.writeByteVector({0, 255, 10});
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(p.writeFileDescriptor(pipeFds[1]), android::OK);
    close(pipeFds[1]);  // the parcel holds its own duplicate
    p.writeFileDescriptor(-1);
    p.writeStatus(ndk::ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, "bad"));
    p.writeStatus(ndk::ScopedAStatus::ok());

    Parcel q;
    Receive(p, &q);
    String16 s16;
    std::vector<String16> vs16;
    std::vector<uint8_t> bytes;
    ASSERT_EQ(q.readString16(&s16), android::OK);
    EXPECT_EQ(s16, astral);
    q.readString16Vector(&vs16);
    EXPECT_EQ(vs16, (std::vector<String16>{String16(u"one"), astral}));
    q.readByteVector(&bytes);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 255, 10}));
    unique_fd fd, none;
    ASSERT_EQ(q.readUniqueFileDescriptor(&fd), android::OK);
    ASSERT_EQ(write(fd.get(), "ping", 4), 4);
    char buf[4];
    ASSERT_EQ(read(pipeFds[0], buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    close(pipeFds[0]);
    ASSERT_EQ(q.readUniqueFileDescriptor(&none), android::OK);
    EXPECT_FALSE(none.ok());
    ndk::ScopedAStatus status;
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_EQ(status.getDescription(), "Status(-3, EX_ILLEGAL_ARGUMENT): 'bad'");
    EXPECT_EQ(status.getStatus(), STATUS_FAILED_TRANSACTION);  // as the NDK reports an exception
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_TRUE(status.isOk());
}

// The bytes a libbinder peer would write: what the generated code of either backend relies on.
TEST(ParcelTest, TheLayoutIsLibbinders) {
    Parcel p;
    p.writeInterfaceToken(String16(u"a.I"));
    p.writeUtf8AsUtf16("\xc3\xa9");
    p.writeByteVector({1, 2, 3, 4, 5});
    p.writeParcelable(android::os::ParcelFileDescriptor(unique_fd(dup(STDERR_FILENO))));
    p.writeNullableParcelable(std::unique_ptr<android::os::ParcelFileDescriptor>());
    p.writeStatus(ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-3, "x"));
    const int32_t words[] = {
        INT32_MIN, -1, 3, 'a' | '.' << 16, 'I',  // strict mode, work source, "a.I" + 0
        1, 0xe9,                                 // "é" + 0
        5, 0x04030201, 5,                        // five bytes, padded
        1, 0, 0,                                 // non-null, no comm channel, the descriptor's index
        0,                                       // null
        -8, 1, 'x', 0, -3,                       // service-specific: message, no stack trace, code
    };
    ASSERT_EQ(p.dataSize(), sizeof(words));
    EXPECT_EQ(memcmp(p.data().data(), words, sizeof(words)), 0);
}

TEST(ParcelTest, HostileBytesAreRefusedNotTrusted) {
    String16 s;
    std::vector<String16> list;
    unique_fd fd;
    int64_t i64;
    ndk::ScopedAStatus status;
    const struct {
        std::vector<int32_t> words;
        std::function<android::status_t(Parcel&)> read;
        android::status_t refused;
    } cases[] = {
        // A string claiming more units than there are, one without its terminating 0, a null one.
        {{1000, 0}, [&](Parcel& p) { return p.readString16(&s); }, android::BAD_VALUE},
        {{2, 'a' | 'b' << 16, 'c'}, [&](Parcel& p) { return p.readString16(&s); }, android::BAD_VALUE},
        {{-1}, [&](Parcel& p) { return p.readString16(&s); }, android::UNEXPECTED_NULL},
        // A vector count that no data backs: refused before allocating.
        {{INT32_MAX}, [&](Parcel& p) { return p.readString16Vector(&list); }, android::BAD_VALUE},
        {{3}, [&](Parcel& p) { return p.readUniqueFileDescriptor(&fd); }, android::BAD_VALUE},  // no descriptor
        {{5}, [&](Parcel& p) { return p.readInt64(&i64); }, android::NOT_ENOUGH_DATA},
        // A status whose stack trace runs past the data.
        {{EX_ILLEGAL_STATE, 0, 0, 400}, [&](Parcel& p) { return p.readStatus(&status); }, android::BAD_VALUE},
    };
    for (const auto& c : cases) {
        Parcel p;
        for (int32_t w : c.words) p.writeInt32(w);
        p.setDataPosition(0);
        EXPECT_EQ(c.read(p), c.refused) << c.words[0];
    }
    // A descriptor index taken twice, and a wrong interface token.
    Parcel g;
    g.writeFileDescriptor(STDERR_FILENO);
    g.writeInt32(0);
    g.setDataPosition(0);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::OK);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
    Parcel token;
    token.writeInterfaceToken(String16(u"velmar.system.tarnis.common.ITarnisSsiIntl"));
    token.setDataPosition(0);
    EXPECT_FALSE(token.enforceInterface(String16(u"velmar.system.tarnis.common.ITarnisSsi")));
}

std::string Frame(uint32_t code, const std::string& body, uint32_t fds) {
    WireHeader header{WireIo::kRequestMagic, code, static_cast<uint32_t>(body.size()), fds};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

unique_fd NullFd() { return unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

TEST(WireDecoderTest, MessagesComeOutWholeWhateverTheSplit) {
    const std::string first = Frame(7, "first", 1), second = Frame(8, "", 0);
    const std::string stream = first + second + Frame(9, "third!", 2);
    // Byte by byte, and all three at once.
    for (size_t chunk : {size_t{1}, stream.size()}) {
        SCOPED_TRACE(chunk);
        WireDecoder decoder({WireIo::kRequestMagic});
        WireMessage message;
        std::string error;
        std::string said;  // code, data and descriptor count of each
        for (size_t at = 0; at < stream.size(); at += chunk) {
            // Descriptors ride on the first byte of their message.
            for (size_t fdAt : {size_t{0}, first.size() + second.size(), first.size() + second.size()}) {
                if (fdAt >= at && fdAt < at + chunk) decoder.fds()->push_back(NullFd());
            }
            decoder.buffer()->append(stream, at, chunk);
            WireDecoder::Result result;
            while ((result = decoder.next(&message, &error)) == WireDecoder::Result::kMessage) {
                said += std::to_string(message.codeOrStatus) + ":" + message.data + ":" +
                        std::to_string(message.fds.size()) + " ";
            }
            ASSERT_EQ(result, WireDecoder::Result::kNeedMore) << error;
        }
        EXPECT_EQ(said, "7:first:1 8::0 9:third!:2 ");
        EXPECT_TRUE(decoder.empty());
    }
}

TEST(WireDecoderTest, AStreamThatCannotBeValidIsRefusedAtOnce) {
    struct Case {
        std::string bytes;
        size_t fds;
        std::string error;
        std::vector<uint32_t> magics = {WireIo::kRequestMagic};
    } cases[] = {
        {Frame(1, "abcd", 1), 0, "malformed transaction (descriptors missing)"},
        {Frame(1, "", 33), 0, "transaction with 33 descriptors exceeds the limit"},
        {"", WireIo::kMaxFds + 1, "more descriptors than any transaction carries"},
        // A reply decoder takes no requests.
        {Frame(1, "", 0), 0, "malformed transaction (bad header)", {WireIo::kReplyMagic, WireIo::kRefuseMagic}},
    };
    for (auto& c : cases) {
        WireDecoder decoder(c.magics);
        *decoder.buffer() = c.bytes;
        for (size_t i = 0; i < c.fds; ++i) decoder.fds()->push_back(NullFd());
        WireMessage message;
        std::string error;
        EXPECT_EQ(decoder.next(&message, &error), WireDecoder::Result::kError) << c.error;
        EXPECT_EQ(error, c.error);
    }
}

}  // namespace
