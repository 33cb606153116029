#pragma once

#include <string>

#include <utils/Vector.h>

#include "platform/binder/IBinder.h"

// The local binder object, libbinder's shape: transact() answers the
// descriptor question, checks the caller against the caller policy, relays
// the dump command, and hands every other call to onTransact(), which a
// generated BnInterface overrides.
namespace android {

class BBinder : public IBinder {
public:
    const String16& getInterfaceDescriptor() const override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;
    BBinder* localBinder() override { return this; }
    // Writes the object's state for the dump command; nothing by default.
    virtual status_t dump(int fd, const Vector<String16>& args);

protected:
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0);
    // The method a transaction code calls, for the caller policy ("" when
    // the code names none): the generated code's numbering by default.
    virtual std::string transactionName(uint32_t code) const;

private:
    status_t handleDump(const Parcel& data);
};

}  // namespace android
