// Parcels, their frames, and the hand-written NDK-backend classes (the host's aidl has none) against generated C++.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>
#include <binder/ParcelFileDescriptor.h>
#include <velmar/system/tarnis/common/BnTarnisSsi.h>
#include <velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireDecoder.h"
#include "platform/binder/WireIo.h"
#include "tests/support/PlatBinder.h"

namespace ndk_ssi = aidl::velmar::system::tarnis::common;
namespace ndk_kolto = aidl::vendor::velmar::hardware::kolto::common;
namespace cpp_ssi = velmar::system::tarnis::common;
namespace cpp_kolto = vendor::velmar::hardware::kolto::common;
using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
using aidl::vendor::velmar::hardware::kolto::common::ITarnisIntl;
using android::Parcel;
using android::String16;
using android::WireDecoder;
using android::WireHeader;
using android::WireIo;
using android::WireMessage;
using android::base::unique_fd;
using android::binder::Status;

namespace {

// The types of this daemon's interfaces that AidlAgreementTest (and ServiceTest's filtered socket) do not carry.
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

    // Received bytes and descriptors, as the transport hands them to a reader.
    std::vector<unique_fd> received;
    for (int fd : p.rawFds()) received.emplace_back(dup(fd));
    Parcel q;
    q.setData(p.data(), std::move(received));
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

std::mutex gLock;
std::vector<std::string> gCalls;  // what each service was called with, in order, on either backend

std::vector<std::string> TakeCalls() {
    std::lock_guard<std::mutex> lock(gLock);
    return std::move(gCalls);
}

std::string Text(const std::string& s) { return s; }
std::string Text(int64_t n) { return std::to_string(n); }
std::string Text(const std::vector<std::string>& list) {
    std::string out;
    for (const auto& s : list) out += "[" + s + "]";
    return out;
}

// Records the call and answers it as the backend's status type R; some calls are refused, one way or the other.
template <typename R, typename... Args>
R Answer(const char* method, const Args&... args) {
    std::string call = method;
    ((call += "|" + Text(args)), ...);
    std::lock_guard<std::mutex> lock(gLock);
    gCalls.push_back(call);
    ndk::ScopedAStatus answer;
    if (call.rfind("reportTrelvoEvent|", 0) == 0 || call.rfind("transferMessage|refuse", 0) == 0) {
        answer = ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-2, "no \xc3\xa9: " + call);
    } else if (call.rfind("reportTrelvoEvents|", 0) == 0) {
        answer = ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
    }
    if constexpr (std::is_same_v<R, Status>) {
        return answer.status();
    } else {
        return answer;
    }
}

// The services of either backend: Bn is the hand-written or the generated stub.
template <typename Bn, typename R>
class Ssi : public Bn {
    R reportSimpleEvent(int32_t t, const std::string& e) override { return Answer<R>("reportSimpleEvent", t, e); }
    R reportEventV2(const std::string& a, const std::string& b, const std::string& c, bool f) override {
        return Answer<R>("reportEventV2", a, b, c, f);
    }
    R reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c) override {
        return Answer<R>("reportNativeFeatureEvent", a, b, c);
    }
    R appCaptureLog(const std::string& a, const std::string& b, const std::string& c, const std::string& d) override {
        return Answer<R>("appCaptureLog", a, b, c, d);
    }
    R reportEventsV2(const std::string& a, const std::vector<std::string>& e, const std::string& c, bool f) override {
        return Answer<R>("reportEventsV2", a, e, c, f);
    }
    R reportTrelvoEvent(const std::string& a, const std::string& p, const std::string& j, int32_t f) override {
        return Answer<R>("reportTrelvoEvent", a, p, j, f);
    }
    R reportTrelvoEvents(const std::string& a, const std::string& p, const std::vector<std::string>& j,
                         int32_t f) override {
        return Answer<R>("reportTrelvoEvents", a, p, j, f);
    }
};

template <typename Bn, typename R>
class Messages : public Bn {
    R transferMessage(const std::string& a, const std::string& j) override { return Answer<R>(__func__, a, j); }
};

// A received descriptor must be close-on-exec: a service's children inherit nothing a caller sent.
template <typename Bn, typename R, typename Ashmem>
class Kolto : public Bn {
    R GetFileSize(const std::string& d, const std::string& f, int64_t* size) override {
        *size = int64_t{1} << 40;
        return Answer<R>("GetFileSize", d, f);
    }
    R ReadFromFile(const std::string& d, const std::string& f, const Ashmem& region, int64_t size) override {
        const bool written = pwrite(region.fd.get(), "region bytes", size, 0) == size;
        const bool closeOnExec = fcntl(region.fd.get(), F_GETFD) == FD_CLOEXEC;
        return Answer<R>("ReadFromFile", d, f, region.size, size, written ? "written" : "not written",
                         closeOnExec ? "close-on-exec" : "inherited");
    }
};

std::string Said(const ndk::ScopedAStatus& status) { return status.getDescription(); }
std::string Said(const Status& status) { return status.toString8().string(); }

// The same calls through the proxies of one backend: what the service saw of each, and what it brought back.
template <typename Ssi, typename SsiIntl, typename Kolto, typename Intl, typename Region>
std::vector<std::pair<std::string, std::string>> Drive(const Ssi& ssi, const SsiIntl& ssiIntl, const Kolto& kolto,
                                                       const Intl& intl, const Region& region) {
    int64_t size = 0;
    std::vector<std::string> said = {
        Said(ssi->reportSimpleEvent(-1, "caf\xc3\xa9 \xf0\x9f\x98\x80")),
        Said(ssi->reportEventV2("a", "", "c", true)),
        Said(ssi->reportNativeFeatureEvent("x", "y", std::string("z\0z", 3))),
        Said(ssi->appCaptureLog("1", "2", "3", "4")),
        Said(ssi->reportEventsV2("h", {"e1", "", "e3"}, "t", false)),
        Said(ssi->reportTrelvoEvent("app", "pkg", "{}", INT32_MIN)),
        Said(ssi->reportTrelvoEvents("app", "pkg", {"{\"k\":1}"}, 2)),
        Said(ssiIntl->transferMessage("velmar.intent.action.X", "{\"k\":\"\xc3\xa9\"}")),
        Said(intl->transferMessage("refuse", "{}")),
        Said(kolto->GetFileSize("/data/vendor/", "tee.log", &size)),
        Said(kolto->ReadFromFile("/data/vendor/", "tee.log", region, 6)),
    };
    said[9] += " " + std::to_string(size);
    std::vector<std::string> calls = TakeCalls();
    calls.resize(std::max(calls.size(), said.size()));
    said.resize(calls.size());
    std::vector<std::pair<std::string, std::string>> seen;
    for (size_t i = 0; i < said.size(); ++i) seen.emplace_back(calls[i], said[i]);
    return seen;
}

// A region of 4096 bytes: its holder keeps `memory` to read what the service wrote.
template <typename Region>
Region MakeRegion(android::base::unique_fd* memory) {
    memory->reset(memfd_create("region", MFD_CLOEXEC));
    EXPECT_EQ(ftruncate(memory->get(), 4096), 0);
    Region region;
    region.fd.reset(android::base::unique_fd(dup(memory->get())));
    region.size = 4096;
    return region;
}

// The method name of each code of interface I, as its hand-written class tables them.
template <typename I>
std::pair<const std::string, std::map<uint32_t, std::string>> HandWrittenNames() {
    std::map<uint32_t, std::string> names;
    uint32_t code = FIRST_CALL_TRANSACTION;
    for (const char* name : I::kTransactionNames) names[code++] = name;
    return {I::descriptor, names};
}

using AidlAgreementTest = tarnis_test::PlatBinderTest;

// The hand-written tables name each code's method in binder's lines and the caller policy.
TEST_F(AidlAgreementTest, HandWrittenMethodNamesAreTheGeneratedStubsCodes) {
    std::map<std::string, std::map<uint32_t, std::string>> generated;
#define AIDL_METHOD(descriptor, code, name) generated[descriptor][code] = name;
#include "velmar/system/tarnis/common/aidl_methods.inc"
#include "vendor/velmar/hardware/kolto/common/aidl_methods.inc"
#undef AIDL_METHOD
    EXPECT_EQ(generated, decltype(generated)({HandWrittenNames<ndk_ssi::ITarnisSsi>(),
                                              HandWrittenNames<ndk_ssi::ITarnisSsiIntl>(),
                                              HandWrittenNames<ndk_kolto::IKoltoImpl>(),
                                              HandWrittenNames<ndk_kolto::ITarnisIntl>()}));
}

TEST_F(AidlAgreementTest, EachBackendsServicesAnswerTheOthersProxies) {
    using ndk::ScopedAStatus;
    const std::pair<const char*, android::sp<android::IBinder>> services[] = {
        {"ndk.ssi", ndk::SharedRefBase::make<Ssi<ndk_ssi::BnTarnisSsi, ScopedAStatus>>()->asBinder()},
        {"ndk.ssi.intl", ndk::SharedRefBase::make<Messages<ndk_ssi::BnTarnisSsiIntl, ScopedAStatus>>()->asBinder()},
        {"ndk.kolto",
         ndk::SharedRefBase::make<Kolto<ndk_kolto::BnKoltoImpl, ScopedAStatus, ndk_kolto::Ashmem>>()->asBinder()},
        {"ndk.intl", ndk::SharedRefBase::make<Messages<ndk_kolto::BnTarnisIntl, ScopedAStatus>>()->asBinder()},
        {"cpp.ssi", new Ssi<cpp_ssi::BnTarnisSsi, Status>()},
        {"cpp.ssi.intl", new Messages<cpp_ssi::BnTarnisSsiIntl, Status>()},
        {"cpp.kolto", new Kolto<cpp_kolto::BnKoltoImpl, Status, cpp_kolto::Ashmem>()},
        {"cpp.intl", new Messages<cpp_kolto::BnTarnisIntl, Status>()},
    };
    for (const auto& [name, binder] : services) {
        ASSERT_EQ(AServiceManager_addService(binder.get(), name), STATUS_OK) << name;
    }
    ABinderProcess_startThreadPool();
    const std::string ok = "No error";
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"reportSimpleEvent|-1|caf\xc3\xa9 \xf0\x9f\x98\x80", ok},
        {"reportEventV2|a||c|1", ok},
        {std::string("reportNativeFeatureEvent|x|y|z\0z", 32), ok},
        {"appCaptureLog|1|2|3|4", ok},
        {"reportEventsV2|h|[e1][][e3]|t|0", ok},
        {"reportTrelvoEvent|app|pkg|{}|-2147483648",
         "Status(-8, EX_SERVICE_SPECIFIC): '-2: no \xc3\xa9: reportTrelvoEvent|app|pkg|{}|-2147483648'"},
        {"reportTrelvoEvents|app|pkg|[{\"k\":1}]|2", "Status(-129, EX_TRANSACTION_FAILED): '-2147483648'"},
        {"transferMessage|velmar.intent.action.X|{\"k\":\"\xc3\xa9\"}", ok},
        {"transferMessage|refuse|{}", "Status(-8, EX_SERVICE_SPECIFIC): '-2: no \xc3\xa9: transferMessage|refuse|{}'"},
        {"GetFileSize|/data/vendor/|tee.log", ok + " 1099511627776"},
        {"ReadFromFile|/data/vendor/|tee.log|4096|6|written|close-on-exec", ok},
    };
    android::base::unique_fd memory[2];
    // The hand-written services through generated proxies, then the generated ones through hand-written proxies.
    EXPECT_EQ(Drive(cpp_ssi::ITarnisSsi::asInterface(Remote("ndk.ssi")),
                    cpp_ssi::ITarnisSsiIntl::asInterface(Remote("ndk.ssi.intl")),
                    cpp_kolto::IKoltoImpl::asInterface(Remote("ndk.kolto")),
                    cpp_kolto::ITarnisIntl::asInterface(Remote("ndk.intl")),
                    MakeRegion<cpp_kolto::Ashmem>(&memory[0])),
              expected);
    EXPECT_EQ(Drive(ndk_ssi::ITarnisSsi::fromBinder(Remote("cpp.ssi")),
                    ndk_ssi::ITarnisSsiIntl::fromBinder(Remote("cpp.ssi.intl")),
                    ndk_kolto::IKoltoImpl::fromBinder(Remote("cpp.kolto")),
                    ndk_kolto::ITarnisIntl::fromBinder(Remote("cpp.intl")),
                    MakeRegion<ndk_kolto::Ashmem>(&memory[1])),
              expected);

    for (const auto& fd : memory) {
        char bytes[8] = {};
        ASSERT_EQ(pread(fd.get(), bytes, 7, 0), 7);
        EXPECT_STREQ(bytes, "region");  // the six bytes asked for, no more
    }
}

}  // namespace
