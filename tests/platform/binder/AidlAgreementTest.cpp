// The NDK-backend classes are written by hand (the host's aidl tool has no NDK
// backend); the C++-backend ones it generates share their codes and parcel
// layout, so each backend's services are called through the other's proxies.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>
#include <velmar/system/tarnis/common/BnTarnisSsi.h>
#include <velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>

#include "tests/support/PlatBinder.h"

namespace ndk_ssi = aidl::velmar::system::tarnis::common;
namespace ndk_kolto = aidl::vendor::velmar::hardware::kolto::common;
namespace cpp_ssi = velmar::system::tarnis::common;
namespace cpp_kolto = vendor::velmar::hardware::kolto::common;
using android::binder::Status;

namespace {

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

// ITarnisSsiIntl and ITarnisIntl.
template <typename Bn, typename R>
class Messages : public Bn {
    R transferMessage(const std::string& action, const std::string& json) override {
        return Answer<R>("transferMessage", action, json);
    }
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
