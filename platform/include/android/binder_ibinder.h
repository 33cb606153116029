#pragma once

// The NDK binder object calls (AIBinder_*). The host binder stand-in implements them.
#include "platform/binder/NdkBinder.h"
