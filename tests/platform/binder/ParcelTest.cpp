#include <fcntl.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <gtest/gtest.h>

#include <utils/Unicode.h>

#include "platform/binder/Parcel.h"

using android::Parcel;

namespace {

TEST(ParcelTest, EveryTypeRoundTripsInOrder) {
    Parcel p;
    const android::String16 astral(u"caf\u00e9 \U0001F600");
    ASSERT_EQ(p.writeInt32(-7), android::OK);
    p.writeInt64(INT64_MIN + 5);
    p.writeBool(true);
    p.writeString(std::string("a\0b\xff", 4));  // bytes, not C strings
    p.writeString16(astral);
    p.writeUtf8AsUtf16("\xc3\xa9t\xc3\xa9");
    p.writeInt32Vector({1, -2, 3});
    p.writeInt64Vector({});
    p.writeBoolVector({true, false, true});
    p.writeStringVector({"x", "", "yz"});
    p.writeString16Vector({android::String16(u"one"), astral});
    p.writeByteVector({0, 255, 10});
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(p.writeFileDescriptor(pipeFds[1]), android::OK);
    close(pipeFds[1]);  // the parcel holds its own duplicate
    p.writeFileDescriptor(-1);
    p.write(android::os::ParcelFileDescriptor(android::base::unique_fd(dup(STDOUT_FILENO))));
    p.writeStatus(ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-1, "runCommand:152: no"));

    // Move through setData, as the transport does with received bytes.
    Parcel q;
    std::vector<android::base::unique_fd> fds;
    for (int fd : p.rawFds()) fds.emplace_back(dup(fd));
    q.setData(p.data(), std::move(fds));

    int32_t i32;
    int64_t i64;
    bool b;
    std::string s;
    android::String16 s16;
    std::vector<int32_t> v32;
    std::vector<int64_t> v64{9};
    std::vector<bool> vb;
    std::vector<std::string> vs;
    std::vector<android::String16> vs16;
    std::vector<uint8_t> bytes;
    ASSERT_EQ(q.readInt32(&i32), android::OK);
    EXPECT_EQ(i32, -7);
    q.readInt64(&i64);
    EXPECT_EQ(i64, INT64_MIN + 5);
    q.readBool(&b);
    EXPECT_TRUE(b);
    q.readString(&s);
    EXPECT_EQ(s, std::string("a\0b\xff", 4));
    q.readString16(&s16);
    EXPECT_EQ(s16, astral);
    q.readUtf8FromUtf16(&s);
    EXPECT_EQ(s, "\xc3\xa9t\xc3\xa9");
    q.readInt32Vector(&v32);
    EXPECT_EQ(v32, (std::vector<int32_t>{1, -2, 3}));
    q.readInt64Vector(&v64);
    EXPECT_TRUE(v64.empty());
    q.readBoolVector(&vb);
    EXPECT_EQ(vb, (std::vector<bool>{true, false, true}));
    q.readStringVector(&vs);
    EXPECT_EQ(vs, (std::vector<std::string>{"x", "", "yz"}));
    q.readString16Vector(&vs16);
    EXPECT_EQ(vs16, (std::vector<android::String16>{android::String16(u"one"), astral}));
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
    android::os::ParcelFileDescriptor pfd;
    ASSERT_EQ(q.read(&pfd), android::OK);
    EXPECT_GE(fcntl(pfd.get(), F_GETFD), 0);
    ndk::ScopedAStatus status;
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_EQ(status.getExceptionCode(), EX_SERVICE_SPECIFIC);
    EXPECT_EQ(status.getServiceSpecificError(), -1);
    EXPECT_EQ(status.getMessage(), "runCommand:152: no");
    EXPECT_EQ(q.dataAvail(), 0u);
    EXPECT_EQ(q.readInt32(&i32), android::NOT_ENOUGH_DATA);
}

TEST(ParcelTest, HostileBytesAreRefusedNotTrusted) {
    // A string claiming more bytes than the parcel holds.
    Parcel p;
    p.writeInt32(1000);
    p.writeInt32(0);
    std::string s;
    EXPECT_EQ(p.readString(&s), android::BAD_VALUE);
    // A vector count that no data backs: refused before allocating.
    Parcel v;
    v.writeInt32(INT32_MAX);
    std::vector<std::string> list;
    EXPECT_EQ(v.readStringVector(&list), android::BAD_VALUE);
    // A descriptor index with no descriptor, and one taken twice.
    Parcel f;
    f.writeInt32(3);
    android::base::unique_fd fd;
    EXPECT_EQ(f.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
    Parcel g;
    g.writeFileDescriptor(STDERR_FILENO);
    g.writeInt32(0);  // the same index again
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::OK);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
    // A truncated int64 and a wrong interface token.
    Parcel t;
    t.writeInt32(5);
    int64_t i64;
    EXPECT_EQ(t.readInt64(&i64), android::NOT_ENOUGH_DATA);
    Parcel token;
    token.writeInterfaceToken("velmar.system.tarnis.common.ITarnisSsiIntl");
    EXPECT_FALSE(token.enforceInterface("velmar.system.tarnis.common.ITarnisSsi"));
}

TEST(ParcelTest, Utf8AndUtf16ConvertBothWays) {
    const std::string text = "A\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";  // A é € 😀
    const android::String16 wide = platform::ToUtf16(text);
    EXPECT_EQ(wide, android::String16(u"A\u00e9\u20ac\U0001F600"));
    EXPECT_EQ(platform::ToUtf8(wide), text);
}

TEST(ParcelTest, StatusKeepsItsKindAcrossTheWire) {
    struct Case {
        ndk::ScopedAStatus status;
        binder_status_t expectedStatus;
    };
    Case cases[] = {
        {ndk::ScopedAStatus::ok(), STATUS_OK},
        {ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR), STATUS_UNKNOWN_ERROR},
        {ndk::ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, "bad"), STATUS_FAILED_TRANSACTION},
    };
    for (auto& c : cases) {
        Parcel p;
        p.writeStatus(c.status);
        ndk::ScopedAStatus back;
        ASSERT_EQ(p.readStatus(&back), android::OK);
        EXPECT_EQ(back.getStatus(), c.expectedStatus);
        EXPECT_EQ(back.getExceptionCode(), c.status.getExceptionCode());
        EXPECT_EQ(back.getMessage(), c.status.getMessage());
    }
    EXPECT_EQ(STATUS_UNKNOWN_ERROR, static_cast<int32_t>(0x80000000));
    EXPECT_EQ(ndk::ScopedAStatus::fromServiceSpecificError(-3, "attachSockFilter:182: illegal argument!")
                  .getDescription(),
              "Status(-8, EX_SERVICE_SPECIFIC): '-3: attachSockFilter:182: illegal argument!'");
}

}  // namespace
