#pragma once

// Parcels. The host binder stand-in implements them.
#include "platform/binder/Parcel.h"
