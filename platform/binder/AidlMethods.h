#pragma once

#include <cstdint>
#include <string>

// The methods of the interfaces whose classes the build generates from aidl/
// (the C++ backend), by transaction code: the caller policy names methods,
// the generated stubs know only codes. The build reads the table out of the
// generated code itself (scripts/aidl-cpp.cmake), so it cannot disagree
// with the codes the stubs dispatch on.
namespace android {

// "" when `code` names no method of `descriptor`.
std::string AidlMethodName(const std::string& descriptor, uint32_t code);

}  // namespace android
