#pragma once

// ndk::SharedRefBase, ICInterface and the stub and proxy bases. The host binder stand-in implements them.
#include "platform/binder/BnCInterface.h"
#include "platform/binder/BpCInterface.h"
#include "platform/binder/ICInterface.h"
