#include <aidl/vendor/velmar/hardware/kolto/common/IKoltoImpl.h>

#include <aidl/vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BpKoltoImpl.h>

namespace aidl {
namespace vendor {
namespace velmar {
namespace hardware {
namespace kolto {
namespace common {

std::shared_ptr<IKoltoImpl> IKoltoImpl::fromBinder(const ndk::SpAIBinder& binder) {
    return ndk::InterfaceFromBinder<IKoltoImpl, BpKoltoImpl>(binder);
}

android::status_t BnKoltoImpl::onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) {
    if (!enforce(in)) return STATUS_BAD_TYPE;
    std::string directory, fileName;
    switch (code) {
        case TRANSACTION_GetFileSize: {
            if (!readArgs(in, &directory, &fileName)) return STATUS_BAD_VALUE;
            int64_t size = 0;
            ndk::ScopedAStatus status = GetFileSize(directory, fileName, &size);
            android::status_t st = out->writeStatus(status);
            if (st != android::OK || !status.isOk()) return st;
            return out->writeInt64(size);
        }
        case TRANSACTION_ReadFromFile: {
            Ashmem region;
            int64_t size = 0;
            if (!readArgs(in, &directory, &fileName, &region, &size)) return STATUS_BAD_VALUE;
            return out->writeStatus(ReadFromFile(directory, fileName, region, size));
        }
        default:
            return STATUS_UNKNOWN_TRANSACTION;
    }
}

ndk::ScopedAStatus BpKoltoImpl::GetFileSize(const std::string& directory, const std::string& fileName,
                                            int64_t* size) {
    android::Parcel reply;
    ndk::ScopedAStatus status = transactCall(TRANSACTION_GetFileSize, &reply, directory, fileName);
    if (status.isOk() && reply.readInt64(size) != android::OK) {
        return ndk::ScopedAStatus::fromStatus(STATUS_BAD_VALUE);
    }
    return status;
}

ndk::ScopedAStatus BpKoltoImpl::ReadFromFile(const std::string& directory, const std::string& fileName,
                                             const Ashmem& region, int64_t size) {
    return transactCall(TRANSACTION_ReadFromFile, nullptr, directory, fileName, region, size);
}

}  // namespace common
}  // namespace kolto
}  // namespace hardware
}  // namespace velmar
}  // namespace vendor
}  // namespace aidl
