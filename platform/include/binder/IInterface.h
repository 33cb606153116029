#pragma once

// Classic interfaces (IInterface, BnInterface, BpInterface). The host binder stand-in implements them.
#include "platform/binder/IInterface.h"
