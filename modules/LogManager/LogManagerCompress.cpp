#define LOG_TAG "Tarnis-LogManager"

#include "modules/LogManager/LogManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <any>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <dorva/DorvaServiceManager.h>
#include <host/LogRateLimiter.h>
#include <log/log.h>

#include "framework/InternalBroadcastManager.h"
#include "framework/IntentFilter.h"
#include "framework/ModuleManager.h"
#include "framework/TarnisHandlerThread.h"
#include "modules/LogManager/LogDirScan.h"
#include "modules/LogManager/LogManagerEvent.h"
#include "modules/LogManager/LogManagerUtil.h"
#include "modules/LogManager/LogMgrBroadcastReceiver.h"
#include "modules/LogManager/LogMgrFileEventListener.h"
#include "utils/Clock.h"
#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/JsonUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"
#include "utils/ZipFile.h"

namespace velmar {
namespace kolto {

using android::base::unique_fd;
using namespace logscan;

void LogManager::CompressEntries(const std::string& devicePath, int dirFd, const LogConfig& config,
                                 LogDirState& state, const std::string& after) {
    // The newest entry may still be written to.
    const bool newestToo = !(config.compressLatestAfterSec == 0 && (config.delayCompress || listener_));
    const std::string& newest = state.entries().rbegin()->first;
    // A copy: packing changes the state.
    std::vector<std::string> names;
    for (auto it = after.empty() ? state.unpacked().begin() : state.unpacked().upper_bound(after);
         it != state.unpacked().end(); ++it) {
        if (newestToo || *it != newest) names.push_back(*it);
    }
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string fullPath = devicePath + "/" + names[i];
        if (fullPath == pendingCompressPath_) continue;
        ALOGD("[%s] Compress loop: fullPath %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        if (listener_ && config.compressLatestAfterSec != 0) {
            if (!pendingCompressPath_.empty()) {
                ALOGI("[%s] Last delay compress is not trigger, trigger it directly", "CheckAndClean");
                std::lock_guard<std::mutex> guard(handlerLock_);
                if (handler_) handler_->removeMessage(pendingCompressMsg_, false);
            }
            // The pending task itself runs now, taken out of the queue.
            if (!pendingCompressPath_.empty()) RunDelayedCompress(pendingCompressPath_);
            pendingCompressPath_ = fullPath;
            pendingCompressMsg_ = PostDelayed([this, fullPath] { RunDelayedCompress(fullPath); },
                                              static_cast<long>(config.compressLatestAfterSec) * 1000);
            ALOGI("[%s] Scheduled delayed compress task for %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
            continue;
        }
        if (CompressAt(dirFd, names[i], fullPath)) {
            NotePacked(state, config, dirFd, names[i]);
            ALOGD("[%s] Compressed: %s", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        } else {
            ALOGE("[%s] Compress the path: %s returned error!", "CheckAndClean", Esc(paths::Get(fullPath)).c_str());
        }
    }
}

bool LogManager::CompressEntry(const std::string& deviceFullPath) {
    const size_t slash = deviceFullPath.find_last_of('/');
    const std::string deviceDir = deviceFullPath.substr(0, slash);
    std::string why;
    const unique_fd dirFd = OpenLogDir(deviceDir, &why);
    if (!dirFd.ok()) {
        ALOGE("[%s] %s, %s not compressed", "Compress", why.c_str(), Esc(deviceFullPath).c_str());
        return false;
    }
    if (!CompressAt(dirFd.get(), deviceFullPath.substr(slash + 1), deviceFullPath)) return false;
    auto known = dirStates_.find(deviceDir);
    std::optional<LogConfig> config = FindConfig(deviceDir);
    if (known != dirStates_.end() && known->second.Valid() && config) {
        NotePacked(known->second, *config, dirFd.get(), deviceFullPath.substr(slash + 1));
    }
    return true;
}

void LogManager::NotePacked(LogDirState& state, const LogConfig& config, int dirFd, const std::string& name) {
    state.Forget(name);
    state.Note(dirFd, name + ".zip", config, GetClock().SteadyNowMs(), false);
}

void LogManager::RunDelayedCompress(std::string devicePath) {
    ALOGI("[%s] delayed compress task running for %s", "operator()", Esc(paths::Get(devicePath)).c_str());
    if (pendingCompressPath_ == devicePath) {
        pendingCompressPath_.clear();
        pendingCompressMsg_ = TarnisMessageRef();
    }
    CompressEntry(devicePath);
}

bool LogManager::Compress(const std::string& devicePath) {
    const size_t slash = devicePath.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : devicePath.substr(0, slash);
    const unique_fd dirFd(open(paths::Get(dir).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.ok()) {
        ALOGW("[%s] %s cannot be opened, not compressed", "Compress", Esc(paths::Get(devicePath)).c_str());
        return false;
    }
    return CompressAt(dirFd.get(), slash == std::string::npos ? devicePath : devicePath.substr(slash + 1), devicePath);
}

bool LogManager::CompressAt(int dirFd, const std::string& name, const std::string& devicePath) {
    // Where the log lines say the entry is: its place in the file system.
    const std::string hostPath = paths::Get(devicePath);
    // Pinned before it is read: a link swapped in for the entry afterwards is
    // not packed, and a link's target never is.
    const unique_fd entry(openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!entry.ok() || fstat(entry.get(), &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
        ALOGW("[%s] %s is not a regular file or directory, not compressed", "Compress", Esc(hostPath).c_str());
        return false;
    }
    // The packer enters a directory given to it but opens a file without
    // following its last component, so a file is read through its directory.
    const std::string source =
        S_ISDIR(st.st_mode) ? ConfinedPath::Through(entry.get()) : ConfinedPath::Through(dirFd, name);
    const std::string archiveName = name + ".zip";
    const std::string archive = ConfinedPath::Through(dirFd, archiveName);
    ZipFile zip({source}, 0);
    zip.nameAs(source, devicePath);
    // Written under a temporary name in the same directory, renamed into place.
    if (!zip.create(archive)) {
        ALOGE("[%s] Create new zip failed!!", "Compress");
        return false;
    }
    if (!zip.close()) {
        FileUtil::DeleteDirectoryOrFile(archive, nullptr);
        return false;
    }
    // The packer skips what it cannot read and still finishes the archive;
    // the entry goes only when every file of it is in the archive whole.
    if (!zip.complete()) {
        const ZipMissing& first = zip.missing().front();
        ALOGE("[%s] %s is incomplete (%s %s), the entry is kept", "Compress", Esc(hostPath + ".zip").c_str(),
              Esc(first.path).c_str(), first.why.c_str());
        FileUtil::DeleteDirectoryOrFile(archive, nullptr);
        return false;
    }
    FileUtil::DeleteDirectoryOrFile(ConfinedPath::Through(dirFd, name), nullptr);
    FileUtil::ChangeMode(archive, 0775);
    return true;
}

}  // namespace kolto
}  // namespace velmar
