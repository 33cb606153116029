#pragma once

// Binder objects, local and remote. The host binder stand-in implements them.
#include "platform/binder/IBinder.h"
