#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/binder/BinderStatus.h"

// A binder object: either local (BBinder, the implementation lives in this
// process) or a proxy (BpBinder, a connection to another process's socket).
// Both are reference counted with std::shared_ptr: android::sp and
// ndk::SpAIBinder are that pointer here.
namespace android {

class Parcel;
class BBinder;
class BpBinder;

template <typename T>
using sp = std::shared_ptr<T>;
template <typename T>
using wp = std::weak_ptr<T>;

class IBinder : public std::enable_shared_from_this<IBinder> {
public:
    virtual ~IBinder() = default;
    // Runs one transaction; the returned status is the transport's (a
    // method's own failure travels in the reply's status header).
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply) = 0;
    // The interface descriptor; a proxy asks its peer once.
    virtual std::string getInterfaceDescriptor() = 0;
    virtual BBinder* localBinder() { return nullptr; }
    virtual BpBinder* remoteBinder() { return nullptr; }
    bool isRemote() { return remoteBinder() != nullptr; }
};

}  // namespace android

using AIBinder = android::IBinder;

namespace ndk {
using SpAIBinder = std::shared_ptr<android::IBinder>;
}  // namespace ndk
