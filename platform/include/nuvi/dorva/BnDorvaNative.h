#pragma once

#include <nuvi/dorva/IDorvaNative.h>

namespace nuvi {
namespace dorva {

// Base of IDorvaNative implementations: unmarshals incoming calls and
// marshals the out-parameters after the status.
class BnDorvaNative : public android::BnInterface<IDorvaNative> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel& in, android::Parcel* out) override;
};

}  // namespace dorva
}  // namespace nuvi
