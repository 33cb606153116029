#pragma once

#include <aidl/vendor/velmar/hardware/kolto/common/IKoltoImpl.h>

#include "platform/binder/BpCInterface.h"

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

// Proxy of a remote IKoltoImpl.
class BpKoltoImpl : public ndk::BpCInterface<IKoltoImpl> {
public:
    using BpCInterface::BpCInterface;
    ndk::ScopedAStatus GetFileSize(const std::string& directory, const std::string& fileName,
                                   int64_t* size) override;
    ndk::ScopedAStatus ReadFromFile(const std::string& directory, const std::string& fileName,
                                    const Ashmem& region, int64_t size) override;
};

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
