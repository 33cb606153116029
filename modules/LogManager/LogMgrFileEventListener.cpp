#define LOG_TAG "Tarnis-LogMgrFileEventListener"

#include "modules/LogManager/LogMgrFileEventListener.h"

#include <sys/inotify.h>

#include <log/log.h>

#include "modules/LogManager/LogManager.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {

LogMgrFileEventListener::LogMgrFileEventListener(LogManager* manager)
    : FileEventListener("LogMgrFileEventListener", {}, 0), manager_(manager) {}

LogMgrFileEventListener::~LogMgrFileEventListener() { stop(); }

void LogMgrFileEventListener::OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& path) {
    if (mask & IN_DELETE_SELF) {
        // Handled here, not by the manager: its pointer to this object is
        // not safe to read from this thread while the manager goes away.
        ALOGI("[%s] watching dir %s deleted, remove watching", "OnFileEvent",
              StringUtil::ForLog(DeviceOf(path)).c_str());
        removeWatching(path);
        return;
    }
    manager_->OnFileEvent(mask, std::move(name), DeviceOf(path));
}

int LogMgrFileEventListener::Watch(const std::string& devicePath, int dirFd, uint32_t mask) {
    const int result = addWatching(paths::Get(devicePath), dirFd, mask);
    if (result != 0) {
        ALOGE("[%s] add file watch failed! path: %s", "LogMgrFileEventListener",
              StringUtil::ForLog(devicePath).c_str());
    }
    return result;
}

bool LogMgrFileEventListener::Unwatch(const std::string& devicePath) { return removeWatching(paths::Get(devicePath)); }

std::string LogMgrFileEventListener::DeviceOf(const std::string& hostPath) {
    std::string root = paths::Get("/");
    while (!root.empty() && root.back() == '/') root.pop_back();
    if (root.empty()) return hostPath;
    if (hostPath.size() > root.size() && hostPath.compare(0, root.size(), root) == 0 && hostPath[root.size()] == '/') {
        return hostPath.substr(root.size());
    }
    return hostPath;
}

}  // namespace kolto
}  // namespace velmar
