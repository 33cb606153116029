#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include <utils/String16.h>

#include "utils/BuildProbes.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/dump/DumpAction.h"
#include "utils/dump/DumpData.h"

namespace android {

// Captures: runs tools into capture files, writes bug-report style dumps and
// packs them into archives. Every entry point runs on its caller's thread;
// device paths handed in are mapped below the sandbox root. The work is done
// by CommandRunner, CaptureDumps and CapturePackager; this class is the one
// name the rest of the daemon calls.
class CaptureLogUtil {
public:
    // ---- command runner ----
    // Runs args[0] (searched on PATH) with the rest as arguments, appending
    // its output and a result line to `logPath`. `timeoutSeconds` below 1
    // means the default (60 s, 90 s in test mode).
    static void run_command(const std::vector<std::string>& args, const char* logPath,
                            int timeoutSeconds);
    // True when `pid` was reaped within the time; false otherwise, errno
    // ETIMEDOUT when the time ran out.
    static bool waitpid_with_timeout(pid_t pid, int timeoutSeconds, int* status);
    // In the child only: makes `path` standard output and standard error.
    static void redirect_output(const char* path);
    // The process-wide test-mode flag: set once a run finds a test mode.
    static bool isTestMode();

    // ---- dumps ----
    static void dump_all(String16& type, String16& headline, std::vector<String16>& actions,
                         std::vector<String16>& params, bool offline, int id, bool useId,
                         String16& where, std::vector<String16>& files, bool isRecordInLocal);
    static void dump_for_actions(const char* outDir, const char* path,
                                 std::vector<DumpAction>& actions);
    static void dump_by_power(std::vector<String16> actions, std::vector<String16> params, const char* path,
                              int timeoutSeconds);
    static void dump_lite_bugreport(const char* target, const char* path);

    // The SUPPORT_ACTION test: `action` occurs in the whitelist string.
    static bool isSupportAction(const std::string& action);
    // Headline as it goes into headers and file names.
    static std::string sanitizeHeadline(const std::string& headline);

    // ---- packaging ----
    static int do_compress(const char* path, const char* where, std::vector<String16>* files,
                           int timeoutSeconds, bool isRecordInLocal);
    static int CompressWithTimeout(const std::string& zipPath, const std::string& path,
                                   std::vector<String16>* files, int timeoutSeconds);
    static void include_zip_files(const char* path, int* count);

    // ---- privileged helpers of the native daemon service ----
    // Paths are the caller's device paths; nothing restricts them.
    static void get_files_from_persist(std::string& out);
    static void read_file(const char* path, std::string& out);
    static int create_file_in_persist(const char* path);
    static void write_to_persist_file(const char* path, const char* content);
    // As write_to_persist_file; true when at least one byte was written.
    static bool create_file_write(const char* path, const char* content);
    static void flash_debugpolicy(int mode);

    // ---- seams for tests ----
    struct Timeouts {
        int defaultSeconds = 60;   // run_command's default
        int testModeSeconds = 90;  // ... in test mode
        int killWaitSeconds = 5;   // after SIGTERM, and again after SIGKILL
    };
    static void SetTimeoutsForTesting(const Timeouts& timeouts);
    static void ResetTestModeForTesting();
    // Called with the time-out of each packing, before it starts; and run on
    // the worker before it packs (to make it slow).
    static void SetCompressHooksForTesting(std::function<void(int timeoutSeconds)> onCompress,
                                           std::function<void()> beforePack);
};

}  // namespace android
