#pragma once

// android::binder::Status, the result of a classic interface's method. The host binder stand-in implements it.
#include "platform/binder/Status.h"
