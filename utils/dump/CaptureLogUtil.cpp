#include "utils/dump/CaptureLogUtil.h"

#include "utils/dump/CaptureDumps.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/CapturePackager.h"
#include "utils/dump/ChildWait.h"
#include "utils/dump/CommandRunner.h"
#include "utils/dump/DebugPolicy.h"
#include "utils/dump/PersistFiles.h"

namespace android {

void CaptureLogUtil::run_command(const std::vector<std::string>& args, const char* logPath, int timeoutSeconds) {
    CommandRunner::Run(args, logPath, timeoutSeconds);
}

bool CaptureLogUtil::waitpid_with_timeout(pid_t pid, int timeoutSeconds, int* status) {
    return CommandRunner::WaitWithTimeout(pid, timeoutSeconds, status);
}

void CaptureLogUtil::redirect_output(const char* path) { CommandRunner::RedirectOutput(path); }

bool CaptureLogUtil::isTestMode() { return CommandRunner::TestMode(); }

void CaptureLogUtil::dump_all(String16& type, String16& headline, std::vector<String16>& actions, std::vector<String16>& params,
                              bool offline, int id, bool useId, String16& where, std::vector<String16>& files,
                              bool isRecordInLocal) {
    CaptureDumps::DumpAll(type, headline, actions, params, offline, id, useId, where, files, isRecordInLocal);
}

void CaptureLogUtil::dump_for_actions(const char* outDir, const char* path, std::vector<DumpAction>& actions) {
    CaptureDumps::DumpForActions(outDir, path, actions);
}

void CaptureLogUtil::dump_by_power(std::vector<String16> actions, std::vector<String16> params, const char* path,
                                   int timeoutSeconds) {
    CaptureDumps::DumpByPower(actions, params, path, timeoutSeconds);
}

void CaptureLogUtil::dump_lite_bugreport(const char* target, const char* path) {
    CaptureDumps::DumpLiteBugreport(target, path);
}

bool CaptureLogUtil::isSupportAction(const std::string& action) { return CaptureDumps::IsSupportAction(action); }

std::string CaptureLogUtil::sanitizeHeadline(const std::string& headline) {
    return CaptureFile::SanitizeHeadline(headline);
}

int CaptureLogUtil::do_compress(const char* path, const char* where, std::vector<String16>* files, int timeoutSeconds,
                                bool isRecordInLocal) {
    return CapturePackager::Compress(path, where, files, timeoutSeconds, isRecordInLocal);
}

int CaptureLogUtil::CompressWithTimeout(const std::string& zipPath, const std::string& path, std::vector<String16>* files,
                                        int timeoutSeconds) {
    return CapturePackager::CompressWithTimeout(zipPath, path, files, timeoutSeconds);
}

void CaptureLogUtil::include_zip_files(const char* path, int* count) { CapturePackager::IncludeZipFiles(path, count); }

void CaptureLogUtil::SetTimeoutsForTesting(const Timeouts& timeouts) {
    CommandRunner::Timeouts runner;
    runner.defaultSeconds = timeouts.defaultSeconds;
    runner.testModeSeconds = timeouts.testModeSeconds;
    CommandRunner::SetTimeoutsForTesting(runner);
    ChildWait::SetGraceForTesting(timeouts.killWaitSeconds);
}

void CaptureLogUtil::ResetTestModeForTesting() { CommandRunner::ResetTestModeForTesting(); }

void CaptureLogUtil::SetCompressHooksForTesting(std::function<void(int)> onCompress, std::function<void()> beforePack) {
    CapturePackager::SetHooksForTesting(std::move(onCompress), std::move(beforePack));
}

void CaptureLogUtil::get_files_from_persist(std::string& out) { PersistFiles::List(out); }

void CaptureLogUtil::read_file(const char* path, std::string& out) { PersistFiles::Read(path, out); }

int CaptureLogUtil::create_file_in_persist(const char* path) { return PersistFiles::Create(path); }

void CaptureLogUtil::write_to_persist_file(const char* path, const char* content) {
    PersistFiles::Write(path, content);
}

bool CaptureLogUtil::create_file_write(const char* path, const char* content) {
    return PersistFiles::WriteOwn(path, content) > 0;
}

void CaptureLogUtil::flash_debugpolicy(int mode) { DebugPolicy::Flash(mode); }

}  // namespace android
