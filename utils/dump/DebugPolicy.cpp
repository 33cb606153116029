#define LOG_TAG "dorvad"

#include "utils/dump/DebugPolicy.h"

#include <cstdlib>
#include <string>

#include <log/log.h>

#include "utils/Paths.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;

// A device path below the root, as one shell word (a sandbox root may hold
// blanks or quotes).
std::string Word(const char* devicePath) {
    std::string quoted = "'";
    for (char c : paths::Get(devicePath)) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

int Shell(const std::string& command) { return system(command.c_str()); }

}  // namespace

void DebugPolicy::Flash(int mode) {
    const int changed = Shell("chmod 777 " + Word(paths::kDebugPolicyDir));
    ALOGD("change dic %d", changed);
    const bool unsignedImages = mode == 1;
    const char* ap = unsignedImages ? paths::kDebugPolicyApImage : paths::kDebugPolicyApSigned;
    const char* msa = unsignedImages ? paths::kDebugPolicyMsaImage : paths::kDebugPolicyMsaSigned;
    const std::string commands[] = {
        "dd if=" + Word(ap) + " of=" + Word(paths::kApdpPartition),
        "dd if=" + Word(msa) + " of=" + Word(paths::kMsadpPartition),
        "chmod 777 " + Word(ap),
        "chmod 777 " + Word(msa),
    };
    for (size_t i = 0; i < 4; ++i) {
        ALOGD("flash debugpolicy cmd[%zu] ret=%d\n", i, Shell(commands[i]));
    }
}

}  // namespace android
