#define LOG_TAG "dorvad"

#include "utils/dump/CaptureDumps.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/klog.h>
#include <sys/stat.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/dump/AnrTraces.h"
#include "utils/BuildProbes.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/CapturePackager.h"
#include "utils/dump/CaptureProgress.h"
#include "utils/dump/CommandRunner.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/dump/DumpstateClient.h"
#include "utils/dump/SectionPool.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
// Types, headlines, actions, parameters and attachment paths come from the
// client that asked for the capture.
using velmar::kolto::StringUtil;

constexpr char kSupportAction[] =
    "cat,logcat,dumpsys,ps,top,df,iptables-wrapper-1.0,ip6tables-wrapper-1.0,netstat,getprop,dmesg";
constexpr char kBugreportLeftoverPrefix[] = "tarnBugreport";
constexpr int kCompressSeconds = 120;
constexpr int kDumpheapCompressSeconds = 600;
constexpr int kForActionsCompressSeconds = 5;
constexpr int kReleaseActionSeconds = 5;
constexpr int kCoredumpCreationTries = 3;
constexpr int kCoredumpPolls = 15;
constexpr int kCoredumpPollMs = 1000;
// klogctl actions (the C library does not name them).
constexpr int kSyslogReadAll = 3;
constexpr int kSyslogSizeBuffer = 10;

// Parameters are split on "," and " " alike; empty fields are dropped.
std::vector<std::string> ActionCommand(const std::string& action, const std::string& param) {
    std::vector<std::string> args{action};
    std::string field;
    for (char c : param) {
        if (c == ',' || c == ' ') {
            if (!field.empty()) args.push_back(field);
            field.clear();
        } else {
            field += c;
        }
    }
    if (!field.empty()) args.push_back(field);
    return args;
}

// The time-out of a whitelisted action: short on release builds, long where
// testers and developers want complete captures.
int ActionTimeout() {
    if (isUnrelease() || ismtbftest() || isomnitest()) return CommandRunner::LongTimeoutSeconds();
    return kReleaseActionSeconds;
}

// The parameter that asks for logs of a chip family this device lacks.
const std::string& KoltoLogsParam() {
    static const std::string* param =
        new std::string(std::string(paths::kKoltoLastKmsg) + "," + paths::kKoltoLastTzlog);
    return *param;
}

// Waits for the core dump of one native crash to appear and stop growing.
void WaitForCoredump(const std::string& file) {
    const bool armed = base::GetBoolProperty("persist.sys.device_config_gki", false) ||
                       base::GetBoolProperty("persist.sys.enable_nuvi_coredump", false);
    velmar::kolto::Clock& clock = velmar::kolto::GetClock();
    const std::string shown = StringUtil::ForLog(paths::Get(file));
    // The path is the client's: looked at below the native-crash directory only.
    const auto look = [&file](struct stat* st) {
        const base::unique_fd fd =
            velmar::kolto::ConfinedPath::Open(file, paths::kNativeCrashDir, O_PATH, 0, nullptr);
        return fd.ok() && fstat(fd.get(), st) == 0;
    };
    if (armed) {
        for (int attempt = 1; attempt <= kCoredumpCreationTries; ++attempt) {
            struct stat st;
            if (look(&st)) {
                ALOGE("coredump(%s) file has created\n", shown.c_str());
                break;
            }
            ALOGE("wait coredump(%s) created %d times \n", shown.c_str(), attempt);
            clock.SleepMs(kCoredumpPollMs);
        }
    }
    long previous = -1;
    for (int poll = 1; poll <= kCoredumpPolls; ++poll) {
        struct stat st;
        if (!look(&st)) {
            ALOGE("coredump(%s) file stat fail: %s\n", shown.c_str(), strerror(errno));
            return;
        }
        const long size = static_cast<long>(st.st_size);
        ALOGE("wait coredump(%s) %d times, filesize=%ld\n", shown.c_str(), poll, size);
        if (size >= 1 && size == previous) {
            ALOGE("dump coredump(%s) completed, filesize:%ld\n", shown.c_str(), size);
            return;
        }
        previous = size;
        if (poll == kCoredumpPolls) {
            ALOGE("dump coredump(%s) tiemout, filesize=%ld\n", shown.c_str(), size);
            return;
        }
        clock.SleepMs(kCoredumpPollMs);
    }
}

void DoDmesg(int fd, const std::string& path) {
    const int size = klogctl(kSyslogSizeBuffer, nullptr, 0);
    if (size < 1) {
        CaptureFile::Append(fd, path, "Unexpected klogctl return value: " + std::to_string(size) + "\n\n");
        return;
    }
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<size_t>(size) + 1]);
    if (!buffer) {
        CaptureFile::Append(fd, path, "memory allocation failed\n\n");
        return;
    }
    const int length = klogctl(kSyslogReadAll, buffer.get(), size);
    if (length < 0) {
        CaptureFile::Append(fd, path, "klogctl failure\n\n");
        return;
    }
    CaptureFile::Append(fd, path, "------ KERNEL LOG (dmesg) ------\n");
    CaptureFile::Append(fd, path, std::string(buffer.get(), static_cast<size_t>(length)) + "\n\n");
}

// Removes the bug-report leftovers ("tarnBugreport*") of the open log
// directory `dirFd` (`logDir`), never through a link put in its place.
void DeleteBugreportLeftovers(int dirFd, const std::string& logDir) {
    base::unique_fd own(fcntl(dirFd, F_DUPFD_CLOEXEC, 0));
    velmar::kolto::ScopedDir dir = velmar::kolto::AdoptDir(own);
    if (!dir) {
        ALOGE("Error opening directory: %s", StringUtil::ForLog(logDir).c_str());
        return;
    }
    rewinddir(dir.get());
    std::vector<std::string> doomed;
    while (struct dirent* entry = readdir(dir.get())) {
        if (strncmp(entry->d_name, kBugreportLeftoverPrefix, strlen(kBugreportLeftoverPrefix)) == 0) {
            doomed.push_back(entry->d_name);
        }
    }
    for (const std::string& name : doomed) {
        if (unlinkat(dirFd, name.c_str(), 0) != 0) {
            ALOGE("failed to remove %s, error: %s", (logDir + "/" + name).c_str(), strerror(errno));
        }
    }
}

}  // namespace

bool CaptureDumps::IsSupportAction(const std::string& action) {
    return strstr(kSupportAction, action.c_str()) != nullptr;
}

void CaptureDumps::DumpAll(const String16& type16, const String16& headline16, const std::vector<String16>& actions,
                           const std::vector<String16>& params, bool offline, int id, bool useId, const String16& where16,
                           std::vector<String16>& files, bool isRecordInLocal) {
    ALOGD("isRecordInLocal is %s\n", isRecordInLocal ? "true" : "false");
    if (actions.empty() || params.size() != actions.size()) {
        ALOGE("Error in dump: actions or params exception.");
        return;
    }
    const std::string type = platform::ToUtf8(type16);
    const std::string headline = CaptureFile::SanitizeHeadline(platform::ToUtf8(headline16));
    const std::string rawWhere = platform::ToUtf8(where16);

    // The type names a directory of its own below the base: nothing else.
    if (!CaptureFile::IsPlainName(type)) {
        ALOGE("Refusing capture: type '%s' is not a plain directory name", StringUtil::ForLog(type).c_str());
        return;
    }
    // A `where` the capture uses, as its base or as the archive's directory,
    // stays on the partitions captures belong on.
    const bool whereIsBase = type == "RescuePartyLog" || type == "BootFailure";
    const bool packs = type != "hangTemp";
    std::string where;
    if (whereIsBase || (packs && !rawWhere.empty())) {
        where = CaptureFile::ResolveWhere(rawWhere);
        if (where.empty()) {
            ALOGE("Refusing capture: where '%s' is not a directory on the data, rescue or cache partition",
                  StringUtil::ForLog(rawWhere).c_str());
            return;
        }
    }

    std::string logDir;
    base::unique_fd dirFd;
    if (!CaptureFile::MakeLogDir(type, where, offline, id, isRecordInLocal, &logDir, &dirFd)) return;
    base::unique_fd out;
    const std::string path = CaptureFile::Create(dirFd.get(), logDir, type, headline, offline, id, useId, &out);
    if (path.empty()) return;
    ALOGI("dump_all path = %s", StringUtil::ForLog(path).c_str());
    CaptureProgress::Archive(
        paths::DeviceOf(packs ? CapturePackager::ArchiveFor(path, where.empty() ? nullptr : where.c_str()) : path));
    if (!CaptureFile::WriteHeader(out.get(), path, headline)) return;
    const auto uptime = [&path](int fd) { CommandRunner::RunInto({"uptime"}, fd, path.c_str(), 1); };
    // The core dumps are waited for between uptime and the tools.
    std::vector<std::string> coredumps;
    if (type == "ne") {
        for (const String16& entry : files) {
            const std::string file = platform::ToUtf8(entry);
            if (velmar::kolto::ConfinedPath::IsBelow(file, paths::kNativeCrashDir)) coredumps.push_back(file);
        }
    }
    const bool uptimeFirst = !coredumps.empty();
    if (uptimeFirst) {
        uptime(out.get());
        for (const std::string& file : coredumps) WaitForCoredump(file);
    }

    std::vector<SectionPool::Section> tools;
    int compressTimeout = kCompressSeconds;
    bool wantBugreport = false;
    std::string bugreportParam;
    for (size_t i = 0; i < actions.size(); ++i) {
        const std::string action = platform::ToUtf8(actions[i]);
        const std::string param = platform::ToUtf8(params[i]);
        ALOGE("dump begin path=%s (%s %s) id=%d", StringUtil::ForLog(path).c_str(),
              StringUtil::ForLog(action).c_str(), StringUtil::ForLog(param).c_str(), id);
        if (action == "do_dumpheap") {
            compressTimeout = kDumpheapCompressSeconds;
        } else if (action == "do_dmesg") {
            tools.push_back([&path](int fd) { DoDmesg(fd, path); });
        } else if (action == "cat" && param.find(KoltoLogsParam()) != std::string::npos) {
            ALOGE("There is no kolto on this device");
            tools.push_back([&path, param](int fd) {
                CaptureFile::Append(fd, path,
                                    "------ cat(" + param + ") ------\ncan not cat this file because there is no kolto.\n");
            });
        } else if (action == "tarnbugreport") {
            // Asked of the bug-report service once every tool has run.
            wantBugreport = true;
            bugreportParam = param;
        } else if (IsSupportAction(action)) {
            tools.push_back([&path, command = ActionCommand(action, param)](int fd) {
                CommandRunner::RunInto(command, fd, path.c_str(), ActionTimeout());
            });
        }
    }
    // A capture of one tool runs as it always did: uptime, then the tool.
    const size_t steps = tools.size() + 1;
    SectionPool sections(out.get(), dirFd.get());
    if (!uptimeFirst && tools.size() > 1) {
        sections.Add(uptime);
    } else if (!uptimeFirst) {
        CaptureProgress::Sections(0, steps);
        uptime(out.get());
    }
    for (SectionPool::Section& tool : tools) sections.Add(std::move(tool));
    const size_t before = steps - sections.size();
    CaptureProgress::Sections(before, steps);
    sections.Run([before, steps](size_t done, size_t) { CaptureProgress::Sections(before + done, steps); });

    std::string bugreport;
    if (wantBugreport) {
        bugreport = DumpstateClient::RequestBugreport(logDir, bugreportParam);
        if (!bugreport.empty()) files.push_back(platform::ToUtf16(bugreport));
    }

    // Temperature-hang captures stay as text.
    if (!packs) return;
    out.reset();
    // The packer reads and writes by name. A log directory renamed away
    // since it was opened (and something else under its name) is not packed
    // from: the capture stays as text where it went.
    if (!CaptureFile::StillInPlace(dirFd.get(), logDir)) {
        ALOGE("Refusing to pack %s: its directory was moved", StringUtil::ForLog(path).c_str());
        return;
    }
    // The text goes only once an archive holds all of it, whenever the
    // worker gets there: a full disk or a packing that fails keeps it.
    const std::string name = path.substr(path.find_last_of('/') + 1);
    auto held = std::make_shared<base::unique_fd>(fcntl(dirFd.get(), F_DUPFD_CLOEXEC, 0));
    CapturePackager::Compress(path.c_str(), where.empty() ? nullptr : where.c_str(), &files, compressTimeout,
                              isRecordInLocal, [held, name, path](bool complete) {
                                  if (!complete) {
                                      ALOGE("kept %s: its archive is not complete", StringUtil::ForLog(path).c_str());
                                  } else if (unlinkat(held->get(), name.c_str(), 0) != 0) {
                                      ALOGE("failed to remove %s, error: %s", StringUtil::ForLog(path).c_str(),
                                            strerror(errno));
                                  }
                              });
    if (!bugreport.empty()) {
        const std::string reportFile = paths::Get(bugreport);
        if (remove(reportFile.c_str()) != 0) {
            ALOGE("failed to remove %s, error: %s", StringUtil::ForLog(reportFile).c_str(), strerror(errno));
        }
        DeleteBugreportLeftovers(dirFd.get(), logDir);
    }
}

void CaptureDumps::DumpByPower(const std::vector<String16>& actions, const std::vector<String16>& params, const char* rawPath,
                               int timeoutSeconds) {
    if (params.size() < actions.size()) {
        ALOGE("dump_by_power: %zu actions but only %zu params", actions.size(), params.size());
        return;
    }
    // The output file is the caller's to name, below the data partition and
    // through no link; opened once, and every tool writes to what was opened.
    // Power-off captures must be on disk before the power goes.
    const std::string path = rawPath;
    const int sync = path.find("dumpsys_by_power") != std::string::npos ? O_SYNC : 0;
    std::string why;
    const base::unique_fd out = velmar::kolto::ConfinedPath::OpenRegular(
        path, paths::kDataMountPoint, O_WRONLY | O_CREAT | O_APPEND | sync, 0644, &why);
    if (!out.ok()) {
        ALOGE("dump_by_power: %s", why.c_str());
        return;
    }
    SectionPool sections(out.get(), -1);
    for (size_t i = 0; i < actions.size(); ++i) {
        const std::string action = platform::ToUtf8(actions[i]);
        const std::string param = platform::ToUtf8(params[i]);
        if (IsSupportAction(action)) {
            ALOGE("dump begin path=%s (%s %s)", StringUtil::ForLog(paths::Get(path)).c_str(),
                  StringUtil::ForLog(action).c_str(),
                  StringUtil::ForLog(param).c_str());
            sections.Add([&path, timeoutSeconds, command = ActionCommand(action, param)](int fd) {
                CommandRunner::RunInto(command, fd, path.c_str(), timeoutSeconds);
            });
        } else {
            ALOGE("dump_by_power: action '%s' not in SUPPORT_ACTION whitelist, skipping",
                  StringUtil::ForLog(action).c_str());
        }
    }
    sections.Run();
}

void CaptureDumps::DumpForActions(const char* rawOutDir, const char* rawPath, const std::vector<DumpAction>& actions) {
    const std::string outDir = paths::Get(rawOutDir);
    const std::string path = paths::Get(rawPath);
    CaptureFile::WriteDateHeader(path);
    {
        // Opened once, through no link, as the tools' output was before.
        const base::unique_fd out(
            TEMP_FAILURE_RETRY(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644)));
        const base::unique_fd dir(
            TEMP_FAILURE_RETRY(open(outDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
        // A file that cannot be opened was reported by the header's write.
        SectionPool sections(out.get(), dir.get());
        CaptureProgress::Archive(paths::DeviceOf(CapturePackager::ArchiveFor(path, rawOutDir)));
        CaptureProgress::Sections(0, actions.size());
        for (const DumpAction& action : actions) {
            sections.Add([&path, &action](int fd) {
                if (!action.title.empty()) CaptureFile::Append(fd, path, action.title + "\n");
                CommandRunner::RunInto(action.command, fd, path.c_str(), action.timeout);
            });
        }
        if (out.ok()) sections.Run(CaptureProgress::Sections);
    }

    AnrTraces anr;
    anr.Collect();
    std::vector<String16> attachments{platform::ToUtf16(paths::kUidErrors)};
    for (const DumpData& trace : anr.traces()) {
        attachments.push_back(platform::ToUtf16(std::string(paths::kAnrDir) + trace.name));
    }
    const auto removeText = [path](bool complete) {
        if (!complete) {
            ALOGE("kept %s: its archive is not complete", StringUtil::ForLog(path).c_str());
        } else if (remove(path.c_str()) != 0) {
            ALOGE("failed to remove %s, error: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
        }
    };
    if (CapturePackager::Compress(rawPath, rawOutDir, &attachments, kForActionsCompressSeconds, false,
                                  removeText) != 0) {
        // The archive may come late or not at all: the text and the uid
        // errors stay beside it.
        const std::string copy = outDir + "/uiderrors.txt";
        copy_file(paths::Get(paths::kUidErrors).c_str(), copy.c_str());
    }
}

void CaptureDumps::DumpLiteBugreport(const char* target, const char* rawPath) {
    const std::string path = paths::Get(rawPath);
    {
        base::unique_fd out(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0664));
        if (!out.ok()) {
            ALOGE("failed to create %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
        } else {
            if (fchown(out.get(), 0, kSystemUid) != 0)
                ALOGD("chown %s failed: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
            fchmod(out.get(), 0664);
        }
    }
    // Recovery finds the report through this record.
    const std::string record = paths::Get(paths::kBootmonitorLog, base::GetBoolProperty("ro.build.ab_update", false));
    {
        base::unique_fd recordFd(open(record.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0664));
        if (!recordFd.ok()) {
            ALOGE("Failed to create recovery_bugreport_path.txt file %s", strerror(errno));
            return;
        }
        if (fchown(recordFd.get(), 0, kSystemUid) != 0) {
            ALOGD("chown %s failed: %s", StringUtil::ForLog(record).c_str(), strerror(errno));
        }
        fchmod(recordFd.get(), 0664);
        if (!base::WriteFully(recordFd.get(), path.data(), path.size())) {
            ALOGE("failed to write %s: %s", StringUtil::ForLog(record).c_str(), strerror(errno));
        }
    }
    DumpstateClient::RequestLiteBugreport(target != nullptr ? target : "");
}

}  // namespace android
