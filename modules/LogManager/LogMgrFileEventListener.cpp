#define LOG_TAG "Tarnis-LogMgrFileEventListener"

#include "modules/LogManager/LogMgrFileEventListener.h"

#include <sys/inotify.h>

#include <log/log.h>

#include "modules/LogManager/LogManager.h"
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
              StringUtil::ForLog(path).c_str());
        removeWatching(path);
        return;
    }
    manager_->OnFileEvent(mask, std::move(name), path);
}

void LogMgrFileEventListener::OnQueueOverflow() { manager_->OnEventsLost(); }

int LogMgrFileEventListener::Watch(const std::string& devicePath, int dirFd, uint32_t mask) {
    const int result = addWatching(devicePath, dirFd, mask);
    if (result != 0) {
        ALOGE("[%s] add file watch failed! path: %s", "LogMgrFileEventListener",
              StringUtil::ForLog(devicePath).c_str());
    }
    return result;
}

bool LogMgrFileEventListener::Unwatch(const std::string& devicePath) { return removeWatching(devicePath); }

}  // namespace kolto
}  // namespace velmar
