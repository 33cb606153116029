#pragma once

// The base of parcelables. The host binder stand-in implements it.
#include "platform/binder/Parcelable.h"
