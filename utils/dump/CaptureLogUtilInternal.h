#pragma once

// Shared between the source files of CaptureLogUtil only.

#include <functional>

#include "utils/dump/CaptureLogUtil.h"

namespace android {
namespace capture_internal {

CaptureLogUtil::Timeouts GetTimeouts();
// The hooks installed by tests (empty functions in production).
std::function<void(int)> CompressObserver();
std::function<void()> BeforePackHook();

}  // namespace capture_internal
}  // namespace android
