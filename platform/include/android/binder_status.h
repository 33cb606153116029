#pragma once

// Status and exception codes with the platform values. The host binder stand-in implements them.
#include "platform/binder/BinderStatus.h"
