#pragma once

// The NDK service manager calls (AServiceManager_*). The host binder stand-in implements them.
#include "platform/binder/NdkBinder.h"
