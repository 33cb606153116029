#pragma once

#include "platform/binder/BnCInterface.h"
#include "platform/binder/BpCInterface.h"
#include "platform/binder/ICInterface.h"

// Classic (libbinder) spellings over the same machinery, for interfaces such
// as the native daemon service: IInterface, BnInterface<I>, BpInterface<I>,
// interface_cast. A classic interface is written like the NDK ones (see
// ITarnisSsi / BnTarnisSsi / BpTarnisSsi): a descriptor, TRANSACTION_ codes
// from FIRST_CALL_TRANSACTION in declaration order, onTransact in the Bn
// class, transactCall in the Bp class (with a reply parcel for out values),
// and asInterface = ClassicInterfaceFromBinder of ICInterface.h.
namespace android {

using IInterface = ::ndk::ICInterface;
template <typename I>
using BnInterface = ::ndk::BnCInterface<I>;
template <typename I>
using BpInterface = ::ndk::BpCInterface<I>;

template <typename I>
sp<I> interface_cast(const sp<IBinder>& binder) {
    return I::asInterface(binder);
}

}  // namespace android
