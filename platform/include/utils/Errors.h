#pragma once

// status_t and its values (android::OK, DEAD_OBJECT, ...). The host binder stand-in implements them.
#include "platform/binder/BinderStatus.h"
