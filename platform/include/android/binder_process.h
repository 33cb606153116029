#pragma once

// The NDK thread pool calls (ABinderProcess_*). The host binder stand-in implements them.
#include "platform/binder/NdkBinder.h"
