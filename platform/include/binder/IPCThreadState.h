#pragma once

// The calling identity of a binder thread. The host binder stand-in implements them.
#include "platform/binder/IPCThreadState.h"
