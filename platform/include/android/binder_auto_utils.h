#pragma once

// ndk::ScopedAStatus and ndk::SpAIBinder. The host binder stand-in implements them.
#include "platform/binder/IBinder.h"
#include "platform/binder/ScopedAStatus.h"
