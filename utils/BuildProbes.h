#pragma once

// Probes for test and pre-release builds. Captures run longer and keep more
// on them; the command runner's test mode starts from them.
namespace android {

bool ismtbftest();  // "persist.mtbf.test"
bool isomnitest();  // "persist.omni.test"
// "ro.zel.development" or "persist.sys.internal_trial_user" is true, or the
// hardware level (read once) is not exactly "MP".
bool isUnrelease();

}  // namespace android
