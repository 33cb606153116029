#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <aidl/vendor/velmar/hardware/kolto/common/Ashmem.h>

#include "platform/binder/ICInterface.h"

// The vendor HAL that reads files this process may not open itself (the
// secure world's log below /data/vendor/) and hands their bytes over in a
// shared memory region.
namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

class IKoltoImpl : public ndk::ICInterface {
public:
    static constexpr const char* descriptor = "vendor.velmar.hardware.kolto.common.IKoltoImpl";

    enum : uint32_t {
        TRANSACTION_GetFileSize = FIRST_CALL_TRANSACTION + 0,
        TRANSACTION_ReadFromFile = FIRST_CALL_TRANSACTION + 1,
    };
    // The method of each code, in the same order (the caller policy names them).
    static constexpr const char* kTransactionNames[] = {
        "GetFileSize", "ReadFromFile",
    };

    // The implementation itself for a local binder, a proxy for a remote one,
    // null for a binder of another interface.
    static std::shared_ptr<IKoltoImpl> fromBinder(const ndk::SpAIBinder& binder);

    // The size in bytes of `directory` + `fileName`.
    virtual ndk::ScopedAStatus GetFileSize(const std::string& directory, const std::string& fileName,
                                           int64_t* size) = 0;
    // Writes the first `size` bytes of `directory` + `fileName` into `region`.
    virtual ndk::ScopedAStatus ReadFromFile(const std::string& directory, const std::string& fileName,
                                            const Ashmem& region, int64_t size) = 0;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
