#pragma once

#include <cstdint>

#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

#include "platform/binder/BinderStatus.h"

// A binder object: either local (BBinder, the implementation lives in this
// process) or a proxy (BpBinder, a connection to another process's socket).
// Reference counted as libbinder's are, with libutils's RefBase and sp; the
// NDK's SpAIBinder is that same pointer here.
namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

class IBinder : public virtual RefBase {
public:
    enum : uint32_t {
        FIRST_CALL_TRANSACTION = ::FIRST_CALL_TRANSACTION,
        LAST_CALL_TRANSACTION = ::LAST_CALL_TRANSACTION,
        DUMP_TRANSACTION = ::DUMP_TRANSACTION,
        INTERFACE_TRANSACTION = ::INTERFACE_TRANSACTION,
    };

    // The interface descriptor; a proxy asks its peer once.
    virtual const String16& getInterfaceDescriptor() const = 0;
    // The local implementation of `descriptor` when this is one (BnInterface).
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);
    // Runs one transaction; the returned status is the transport's (a
    // method's own failure travels in the reply's status header).
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) = 0;
    virtual BBinder* localBinder() { return nullptr; }
    virtual BpBinder* remoteBinder() { return nullptr; }
    bool isRemote() { return remoteBinder() != nullptr; }
};

}  // namespace android

using AIBinder = android::IBinder;

namespace ndk {
using SpAIBinder = android::sp<android::IBinder>;
}  // namespace ndk
