#pragma once

#include <string>
#include <vector>

#include <utils/String16.h>

#include "utils/dump/DumpAction.h"

namespace android {

// The four kinds of capture: what each runs into its text file, and what
// it asks of the bug-report service and of packaging. Each runs on its
// caller's thread; device paths handed in are mapped below the root.
class CaptureDumps {
public:
    static void DumpAll(const String16& type, const String16& headline, const std::vector<String16>& actions,
                        const std::vector<String16>& params, bool offline, int id, bool useId, const String16& where,
                        std::vector<String16>& files, bool isRecordInLocal);
    static void DumpForActions(const char* outDir, const char* path, const std::vector<DumpAction>& actions);
    static void DumpByPower(const std::vector<String16>& actions, const std::vector<String16>& params, const char* path,
                            int timeoutSeconds);
    static void DumpLiteBugreport(const char* target, const char* path);

    // The SUPPORT_ACTION test: `action` occurs in the whitelist string (as
    // the empty one does in every string).
    static bool IsSupportAction(const std::string& action);
};

}  // namespace android
