// Unmarshals arbitrary bytes as an incoming transaction of the event-reporting
// interface, and as a run of typed reads: what a hostile client can put on the
// binder socket once the transport has framed it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <aidl/vendor/velmar/hardware/kolto/common/Ashmem.h>
#include <nuvi/dorva/BnDorvaNative.h>
#include <log/log.h>

#include "fuzz/QuietLog.h"
#include "platform/binder/Parcel.h"

namespace {

using aidl::velmar::system::tarnis::common::BnTarnisSsi;

class NullSsi : public BnTarnisSsi {
public:
    ndk::ScopedAStatus reportSimpleEvent(int32_t, const std::string&) override { return ok(); }
    ndk::ScopedAStatus reportEventV2(const std::string&, const std::string&, const std::string&, bool) override {
        return ok();
    }
    ndk::ScopedAStatus reportNativeFeatureEvent(const std::string&, const std::string&, const std::string&) override {
        return ok();
    }
    ndk::ScopedAStatus appCaptureLog(const std::string&, const std::string&, const std::string&,
                                     const std::string&) override {
        return ok();
    }
    ndk::ScopedAStatus reportEventsV2(const std::string&, const std::vector<std::string>&, const std::string&,
                                      bool) override {
        return ok();
    }
    ndk::ScopedAStatus reportTrelvoEvent(const std::string&, const std::string&, const std::string&, int32_t) override {
        return ok();
    }
    ndk::ScopedAStatus reportTrelvoEvents(const std::string&, const std::string&, const std::vector<std::string>&,
                                          int32_t) override {
        return ok();
    }

private:
    static ndk::ScopedAStatus ok() { return ndk::ScopedAStatus::ok(); }
};

// The native daemon service's stub with methods that do nothing: what is
// fuzzed is the unmarshalling of its arguments.
class NullDorva : public nuvi::dorva::BnDorvaNative {
public:
    using Status = android::binder::Status;
    using S16 = android::String16;
    using V16 = std::vector<S16>;
    Status captureLog(const S16&, const S16&, const V16&, const V16&, bool, int32_t, bool, const S16&, const V16&,
                      bool) override {
        return Status::ok();
    }
    Status attachSockFilter(const S16&, const S16&, int32_t, int32_t, int32_t, int32_t, int32_t,
                            const std::vector<uint8_t>&, int32_t, const S16&,
                            std::unique_ptr<android::os::ParcelFileDescriptor>*) override {
        return Status::ok();
    }
    Status setCoreFilter(int32_t, bool) override { return Status::ok(); }
    Status runCommand(const S16&, const S16&, int32_t, int32_t* result) override {
        *result = 0;
        return Status::ok();
    }
    Status startDefrag() override { return Status::ok(); }
    Status createFileInPersist(const S16&, int32_t* result) override {
        *result = 0;
        return Status::ok();
    }
    Status writeToPersistFile(const S16&, const S16&) override { return Status::ok(); }
    Status readFile(const S16& path, S16* content) override {
        *content = path;
        return Status::ok();
    }
    Status getFilesFromPersist(S16*) override { return Status::ok(); }
    Status stopDefrag() override { return Status::ok(); }
    Status resumeDefrag() override { return Status::ok(); }
    Status flashDebugPolicy(int32_t) override { return Status::ok(); }
    Status getStationInfo(const S16&, const S16&, nuvi::dorva::StationInfo*) override { return Status::ok(); }
    Status captureLogByRunCommand(const V16&, const V16&, const S16&, int32_t) override { return Status::ok(); }
    Status FactoryResetWipeRescuePartition() override { return Status::ok(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QuietLogOnce();
    if (size == 0) return 0;
    const uint8_t selector = data[0];
    std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);

    static auto service = ndk::SharedRefBase::make<NullSsi>();
    android::Parcel in;
    in.setData(bytes, {});
    android::Parcel out;
    if (selector & 0x80) {
        static const android::sp<NullDorva> dorva = new NullDorva();
        dorva->onTransact(FIRST_CALL_TRANSACTION + selector % 16, in, &out, 0);
    } else {
        service->onTransact(FIRST_CALL_TRANSACTION + selector % 8, in, &out);
    }

    // Every reader over the same bytes, in an order the input chooses.
    android::Parcel raw;
    raw.setData(bytes, {});
    for (int step = 0; step < 64 && raw.dataAvail() > 0; ++step) {
        android::status_t status = android::OK;
        switch ((selector + step) % 11) {
            case 0: { int32_t v; status = raw.readInt32(&v); break; }
            case 1: { int64_t v; status = raw.readInt64(&v); break; }
            case 2: { bool v; status = raw.readBool(&v); break; }
            case 3: { std::string v; status = raw.readUtf8FromUtf16(&v); break; }
            case 4: { android::String16 v; status = raw.readString16(&v); break; }
            case 5: { std::vector<std::string> v; status = raw.readUtf8VectorFromUtf16Vector(&v); break; }
            case 6: { std::vector<android::String16> v; status = raw.readString16Vector(&v); break; }
            case 7: { std::vector<uint8_t> v; status = raw.readByteVector(&v); break; }
            case 8: { nuvi::dorva::StationInfo v; status = v.readFromParcel(&raw); break; }
            case 9: { aidl::vendor::velmar::hardware::kolto::common::Ashmem v; status = v.readFromParcel(&raw); break; }
            default: { ndk::ScopedAStatus v; status = raw.readStatus(&v); break; }
        }
        if (status != android::OK) break;
    }
    return 0;
}
