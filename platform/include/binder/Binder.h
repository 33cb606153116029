#pragma once

// The local binder object. The host binder stand-in implements them.
#include "platform/binder/BBinder.h"
