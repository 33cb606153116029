#include <fcntl.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <gtest/gtest.h>

#include <binder/ParcelFileDescriptor.h>
#include <utils/Unicode.h>

#include "platform/binder/Parcel.h"

using android::Parcel;
using android::String16;

namespace {

// Received bytes and descriptors, as the transport hands them to a reader.
void Receive(const Parcel& sent, Parcel* received) {
    std::vector<android::base::unique_fd> fds;
    for (int fd : sent.rawFds()) fds.emplace_back(dup(fd));
    received->setData(sent.data(), std::move(fds));
}

TEST(ParcelTest, EveryTypeRoundTripsInOrder) {
    Parcel p;
    const String16 astral(u"caf\u00e9 \U0001F600");
    ASSERT_EQ(p.writeInt32(-7), android::OK);
    p.writeInt64(INT64_MIN + 5);
    p.writeBool(true);
    p.writeString16(astral);
    p.writeUtf8AsUtf16(std::string("\xc3\xa9t\0\xc3\xa9", 6));  // embedded NULs survive
    p.writeString16Vector({String16(u"one"), astral});
    p.writeUtf8VectorAsUtf16Vector({"x", "", "yz"});
    p.writeByteVector({0, 255, 10});
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(p.writeFileDescriptor(pipeFds[1]), android::OK);
    close(pipeFds[1]);  // the parcel holds its own duplicate
    p.writeFileDescriptor(-1);
    p.writeParcelable(android::os::ParcelFileDescriptor(android::base::unique_fd(dup(STDOUT_FILENO))));
    p.writeStatus(ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-1, "runCommand:152: no"));
    p.writeStatus(ndk::ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, "bad"));
    p.writeStatus(ndk::ScopedAStatus::ok());

    Parcel q;
    Receive(p, &q);
    int32_t i32;
    int64_t i64;
    bool b;
    std::string s;
    String16 s16;
    std::vector<String16> vs16;
    std::vector<std::string> vs;
    std::vector<uint8_t> bytes;
    ASSERT_EQ(q.readInt32(&i32), android::OK);
    EXPECT_EQ(i32, -7);
    q.readInt64(&i64);
    EXPECT_EQ(i64, INT64_MIN + 5);
    q.readBool(&b);
    EXPECT_TRUE(b);
    q.readString16(&s16);
    EXPECT_EQ(s16, astral);
    q.readUtf8FromUtf16(&s);
    EXPECT_EQ(s, std::string("\xc3\xa9t\0\xc3\xa9", 6));
    q.readString16Vector(&vs16);
    EXPECT_EQ(vs16, (std::vector<String16>{String16(u"one"), astral}));
    q.readUtf8VectorFromUtf16Vector(&vs);
    EXPECT_EQ(vs, (std::vector<std::string>{"x", "", "yz"}));
    q.readByteVector(&bytes);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 255, 10}));
    android::base::unique_fd fd, none;
    ASSERT_EQ(q.readUniqueFileDescriptor(&fd), android::OK);
    ASSERT_TRUE(fd.ok());
    ASSERT_EQ(write(fd.get(), "ping", 4), 4);
    char buf[4];
    ASSERT_EQ(read(pipeFds[0], buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    close(pipeFds[0]);
    ASSERT_EQ(q.readUniqueFileDescriptor(&none), android::OK);
    EXPECT_FALSE(none.ok());
    std::unique_ptr<android::os::ParcelFileDescriptor> pfd;
    ASSERT_EQ(q.readParcelable(&pfd), android::OK);
    ASSERT_NE(pfd, nullptr);
    EXPECT_GE(fcntl(pfd->get(), F_GETFD), 0);
    ndk::ScopedAStatus status;
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_EQ(status.getExceptionCode(), EX_SERVICE_SPECIFIC);
    EXPECT_EQ(status.getServiceSpecificError(), -1);
    EXPECT_EQ(status.getMessage(), "runCommand:152: no");
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_EQ(status.getDescription(), "Status(-3, EX_ILLEGAL_ARGUMENT): 'bad'");
    EXPECT_EQ(status.getStatus(), STATUS_FAILED_TRANSACTION);  // as the NDK reports an exception
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_TRUE(status.isOk());
    EXPECT_EQ(q.dataAvail(), 0u);
    EXPECT_EQ(q.readInt32(&i32), android::NOT_ENOUGH_DATA);
}

// The bytes a libbinder peer would write: what the generated code of either
// backend relies on.
TEST(ParcelTest, TheLayoutIsLibbindersWithAPositionForReadsAndWrites) {
    Parcel p;
    p.writeInterfaceToken(String16(u"a.I"));
    p.writeUtf8AsUtf16("\xc3\xa9");
    p.writeByteVector({1, 2, 3, 4, 5});
    p.writeParcelable(android::os::ParcelFileDescriptor(android::base::unique_fd(dup(STDERR_FILENO))));
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

    // A structured parcelable's size goes in front once its fields are written.
    p.setDataPosition(4);
    p.writeInt32(7);
    EXPECT_EQ(p.dataPosition(), 8u);
    EXPECT_EQ(p.dataSize(), sizeof(words));
    p.setDataPosition(4);
    EXPECT_EQ(p.readInt32(), 7);
    // A transport failure is no status header: the transaction fails with it.
    Parcel reply;
    EXPECT_EQ(reply.writeStatus(ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR)), STATUS_UNKNOWN_ERROR);
    EXPECT_EQ(reply.dataSize(), 0u);
}

TEST(ParcelTest, HostileBytesAreRefusedNotTrusted) {
    auto Of = [](std::initializer_list<int32_t> words, Parcel* p) {
        for (int32_t w : words) p->writeInt32(w);
        p->setDataPosition(0);
    };
    // A string claiming more units than the parcel holds, one without its
    // terminating 0, and a null one where none may be.
    String16 s;
    Parcel longString, unterminated, null;
    Of({1000, 0}, &longString);
    EXPECT_EQ(longString.readString16(&s), android::BAD_VALUE);
    Of({2, 'a' | 'b' << 16, 'c'}, &unterminated);
    EXPECT_EQ(unterminated.readString16(&s), android::BAD_VALUE);
    Of({-1}, &null);
    EXPECT_EQ(null.readString16(&s), android::UNEXPECTED_NULL);
    // A vector count that no data backs: refused before allocating.
    Parcel v;
    Of({INT32_MAX}, &v);
    std::vector<String16> list;
    EXPECT_EQ(v.readString16Vector(&list), android::BAD_VALUE);
    // A descriptor index with no descriptor, and one taken twice.
    Parcel f;
    Of({3}, &f);
    android::base::unique_fd fd;
    EXPECT_EQ(f.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
    Parcel g;
    g.writeFileDescriptor(STDERR_FILENO);
    g.writeInt32(0);  // the same index again
    g.setDataPosition(0);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::OK);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
    // A truncated int64, a status whose stack trace runs past the data, and
    // a wrong interface token.
    Parcel t, trace, token;
    Of({5}, &t);
    int64_t i64;
    EXPECT_EQ(t.readInt64(&i64), android::NOT_ENOUGH_DATA);
    Of({EX_ILLEGAL_STATE, 0, 0, 400}, &trace);
    ndk::ScopedAStatus status;
    EXPECT_EQ(trace.readStatus(&status), android::BAD_VALUE);
    token.writeInterfaceToken(String16(u"velmar.system.tarnis.common.ITarnisSsiIntl"));
    token.setDataPosition(0);
    EXPECT_FALSE(token.enforceInterface(String16(u"velmar.system.tarnis.common.ITarnisSsi")));
}

}  // namespace
