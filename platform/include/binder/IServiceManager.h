#pragma once

// The classic service manager (defaultServiceManager). The host binder stand-in implements them.
#include "platform/binder/IServiceManager.h"
