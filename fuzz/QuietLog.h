#pragma once

#include <host/Host.h>
#include <log/log.h>

// The parsers log every input they refuse; millions of lines would only slow
// the fuzzer down and bury its own report.
inline void QuietLogOnce() {
    static const bool quiet = [] {
        platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
        return true;
    }();
    (void)quiet;
}
