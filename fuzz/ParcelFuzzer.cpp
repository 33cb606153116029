// Unmarshals arbitrary bytes as an incoming transaction of the event-reporting
// interface, and as a run of typed reads: what a hostile client can put on the
// binder socket once the transport has framed it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <host/Host.h>
#include <log/log.h>

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = [] {
        platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
        return true;
    }();
    (void)quiet;
    if (size == 0) return 0;
    const uint8_t selector = data[0];
    std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);

    static auto service = ndk::SharedRefBase::make<NullSsi>();
    android::Parcel in;
    in.setData(bytes, {});
    android::Parcel out;
    service->onTransact(FIRST_CALL_TRANSACTION + selector % 8, in, &out);

    // Every reader over the same bytes, in an order the input chooses.
    android::Parcel raw;
    raw.setData(bytes, {});
    for (int step = 0; step < 64 && raw.dataAvail() > 0; ++step) {
        android::status_t status = android::OK;
        switch ((selector + step) % 9) {
            case 0: { int32_t v; status = raw.readInt32(&v); break; }
            case 1: { int64_t v; status = raw.readInt64(&v); break; }
            case 2: { bool v; status = raw.readBool(&v); break; }
            case 3: { std::string v; status = raw.readString(&v); break; }
            case 4: { std::u16string v; status = raw.readString16(&v); break; }
            case 5: { std::vector<std::string> v; status = raw.readStringVector(&v); break; }
            case 6: { std::vector<std::u16string> v; status = raw.readString16Vector(&v); break; }
            case 7: { std::vector<uint8_t> v; status = raw.readByteVector(&v); break; }
            default: { ndk::ScopedAStatus v; status = raw.readStatus(&v); break; }
        }
        if (status != android::OK) break;
    }
    return 0;
}
