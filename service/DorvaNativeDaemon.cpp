#define LOG_TAG "dorvad"

#include "service/DorvaNativeDaemon.h"

#include <fcntl.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <cstdio>
#include <string>
#include <utility>

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <binder/IPCThreadState.h>
#include <log/log.h>

#include "modules/RescueSpace/RescueSpaceThread.h"
#include "utils/ConfinedPath.h"
#include "utils/Paths.h"
#include "utils/SocketFilter.h"
#include "utils/StringUtil.h"
#include "utils/dump/CaptureLogUtil.h"
#include "utils/dump/CapturePackager.h"
#include "utils/dump/CaptureProgress.h"
#include "utils/dump/CmdTool.h"
#include "utils/dump/PersistFiles.h"
#include "utils/wificond/NetlinkUtils.h"

namespace android {
namespace {

using velmar::kolto::StringUtil;

// The refusals carry the method, a fixed number and a reason, so that a
// client can tell which check turned it away.
binder::Status Refuse(int32_t code, const char* method, int line, const char* reason) {
    return binder::Status::fromServiceSpecificError(
        code, String8(base::StringPrintf("%s:%d: %s", method, line, reason).c_str()));
}

// A path that would leave its tree: the sentence goes to the log and back to
// the caller, and nothing is touched.
binder::Status RefusePath(const char* method, int line, const std::string& why) {
    ALOGE("%s: %s", method, why.c_str());
    return binder::Status::fromServiceSpecificError(
        -1, String8(base::StringPrintf("%s:%d: %s", method, line, why.c_str()).c_str()));
}

uid_t CallingUid() { return IPCThreadState::self()->getCallingUid(); }

}  // namespace

binder::Status DorvaNativeDaemon::captureLog(const String16& type, const String16& headline,
                                             const std::vector<String16>& actions,
                                             const std::vector<String16>& params, bool offline, int32_t id,
                                             bool useId, const String16& where, const std::vector<String16>& files,
                                             bool isRecordInLocal) {
    // Attachments are the caller's paths: one that would leave /data refuses
    // the capture, so the caller learns it, and nothing is run.
    for (const String16& file : files) {
        std::string kept, why;
        if (!CapturePackager::CheckAttachment(platform::ToUtf8(file), &kept, nullptr, &why)) {
            return RefusePath("captureLog", 45, why);
        }
    }
    CaptureProgress progress(IPCThreadState::self()->getCallingPid());
    String16 type16 = type, headline16 = headline, where16 = where;
    std::vector<String16> actions16 = actions, params16 = params, files16 = files;
    CaptureLogUtil::dump_all(type16, headline16, actions16, params16, offline, id, useId, where16, files16,
                             isRecordInLocal);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::attachSockFilter(const String16& srcMac, const String16& dstMac, int32_t srcAddr,
                                                   int32_t dstAddr, int32_t protocol, int32_t srcPort,
                                                   int32_t dstPort, const std::vector<uint8_t>& payload,
                                                   int32_t extraLen, const String16& ifname,
                                                   std::unique_ptr<os::ParcelFileDescriptor>* socket) {
    if (protocol < 0 || srcPort < 0 || dstPort < 0 || extraLen < 0) {
        return Refuse(-3, "attachSockFilter", 182, "illegal argument!");
    }
    const std::string src = platform::ToUtf8(srcMac), dst = platform::ToUtf8(dstMac), interface = platform::ToUtf8(ifname);
    std::vector<unsigned char> bytes(payload.begin(), payload.end());
    SocketFilter filter(src.c_str(), dst.c_str(), static_cast<unsigned>(srcAddr), static_cast<unsigned>(dstAddr),
                        static_cast<unsigned>(protocol), static_cast<unsigned>(srcPort),
                        static_cast<unsigned>(dstPort), bytes.empty() ? nullptr : bytes.data(),
                        static_cast<unsigned>(bytes.size()), static_cast<unsigned>(extraLen), interface.c_str());
    base::unique_fd fd = filter.attach();
    if (fd.ok()) *socket = std::make_unique<os::ParcelFileDescriptor>(std::move(fd));
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::setCoreFilter(int32_t pid, bool enable) {
    // The kernel's own file of that process: /proc is never below the root.
    char path[4096];
    snprintf(path, sizeof(path), velmar::kolto::paths::kCoredumpFilterFormat, pid);
    const base::unique_fd fd(open(path, O_WRONLY | O_CLOEXEC));
    if (fd.get() >= 1) {
        // The kernel reads the text as a C number, so these are decimal:
        // 39 (0x27) dumps anonymous, private file-backed and private huge
        // pages; 35 (0x23) leaves the private file-backed ones out.
        ssize_t written = write(fd.get(), enable ? "39" : "35", 2);
        (void)written;
    }
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::runCommand(const String16& action, const String16& params, int32_t timeoutSeconds,
                                             int32_t* result) {
    const uid_t uid = CallingUid();
    if (uid == kShellUid) {
        ALOGE("runCommand: Shell user (UID %d) access denied", static_cast<int>(uid));
        return Refuse(-1, "runCommand", 145, "Command not allowed for shell user");
    }
    const std::string action8 = platform::ToUtf8(action);
    if (!CaptureLogUtil::isSupportAction(action8)) {
        ALOGE("runCommand: action '%s' not in SUPPORT_ACTION whitelist", StringUtil::ForLog(action8).c_str());
        return Refuse(-1, "runCommand", 152, "Command not allowed");
    }
    *result = CmdTool::run_command_lite(action, params, timeoutSeconds);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::startDefrag() { return binder::Status::ok(); }

binder::Status DorvaNativeDaemon::createFileInPersist(const String16& path, int32_t* result) {
    std::string why;
    if (!PersistFiles::Check(platform::ToUtf8(path), &why)) return RefusePath("createFileInPersist", 108, why);
    *result = CaptureLogUtil::create_file_in_persist(platform::ToUtf8(path).c_str());
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::writeToPersistFile(const String16& path, const String16& content) {
    std::string why;
    if (!PersistFiles::Check(platform::ToUtf8(path), &why)) return RefusePath("writeToPersistFile", 114, why);
    CaptureLogUtil::write_to_persist_file(platform::ToUtf8(path).c_str(), platform::ToUtf8(content).c_str());
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::readFile(const String16& path, String16* content) {
    std::string why;
    if (!PersistFiles::Check(platform::ToUtf8(path), &why)) return RefusePath("readFile", 120, why);
    std::string text;
    CaptureLogUtil::read_file(platform::ToUtf8(path).c_str(), text);
    *content = platform::ToUtf16(text);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::getFilesFromPersist(String16* list) {
    std::string text;
    CaptureLogUtil::get_files_from_persist(text);
    *list = platform::ToUtf16(text);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::stopDefrag() { return binder::Status::ok(); }

binder::Status DorvaNativeDaemon::resumeDefrag() { return binder::Status::ok(); }

binder::Status DorvaNativeDaemon::flashDebugPolicy(int32_t mode) {
    CaptureLogUtil::flash_debugpolicy(mode);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::getStationInfo(const String16& ifname, const String16& peer,
                                                 nuvi::dorva::StationInfo* info) {
    wificond::StationInfo station;
    wificond::NetlinkUtils netlink;
    // Without a session (no nl80211 in this kernel) the query could only
    // fail again; the defaults stand, as for any value the kernel leaves out.
    if (netlink.Start()) {
        const std::string ifname8 = platform::ToUtf8(ifname), peer8 = platform::ToUtf8(peer);
        netlink.GetStationInfo(ifname8.c_str(), peer8.c_str(), station);
    }
    info->signal = station.signal;
    info->chainSignalAvg0 = station.chainSignalAvg[0];
    info->chainSignalAvg1 = station.chainSignalAvg[1];
    info->chainSignalAvg2 = station.chainSignalAvg[2];
    info->chainSignalAvg3 = station.chainSignalAvg[3];
    info->txMcs = station.txMcs;
    info->txVhtMcs = station.txVhtMcs;
    info->txHeMcs = station.txHeMcs;
    info->txEhtMcs = station.txEhtMcs;
    info->rxMcs = station.rxMcs;
    info->rxVhtMcs = station.rxVhtMcs;
    info->rxHeMcs = station.rxHeMcs;
    info->rxEhtMcs = station.rxEhtMcs;
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::captureLogByRunCommand(const std::vector<String16>& actions,
                                                         const std::vector<String16>& params, const String16& path,
                                                         int32_t timeoutSeconds) {
    const uid_t uid = CallingUid();
    if (uid == kShellUid) {
        ALOGE("captureLogByRunCommand: Shell user (UID %d) access denied", static_cast<int>(uid));
        return Refuse(-1, "captureLogByRunCommand", 244, "Command not allowed for shell user");
    }
    std::vector<String16> keptActions, keptParams;
    for (size_t i = 0; i < actions.size(); ++i) {
        const std::string action8 = platform::ToUtf8(actions[i]);
        if (!CaptureLogUtil::isSupportAction(action8)) {
            ALOGE("captureLogByRunCommand: action '%s' not in SUPPORT_ACTION whitelist, skipping",
                  StringUtil::ForLog(action8).c_str());
            continue;
        }
        // A caller owes a parameter for every action; a missing one is an
        // action without arguments rather than a read past the list.
        keptActions.push_back(actions[i]);
        keptParams.push_back(i < params.size() ? params[i] : String16());
    }
    if (keptActions.empty()) {
        ALOGE("captureLogByRunCommand: no valid actions found in the batch");
        return Refuse(-1, "captureLogByRunCommand", 266, "No valid commands found");
    }
    const std::string path8 = platform::ToUtf8(path);
    std::string why;
    std::string leaf;
    if (!velmar::kolto::ConfinedPath::OpenParent(path8, velmar::kolto::paths::kDataMountPoint, &leaf, &why).ok()) {
        return RefusePath("captureLogByRunCommand", 262, why);
    }
    CaptureLogUtil::dump_by_power(keptActions, keptParams, path8.c_str(), timeoutSeconds);
    return binder::Status::ok();
}

binder::Status DorvaNativeDaemon::FactoryResetWipeRescuePartition() {
    velmar::tarnis::RescueSpaceThread worker;
    worker.FactoryResetWipeRescuePartition();
    return binder::Status::ok();
}

}  // namespace android
