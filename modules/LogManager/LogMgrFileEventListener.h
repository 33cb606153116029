#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/FileEventListener.h"

namespace velmar {
namespace kolto {

class LogManager;

// Watches the log directories for the log manager. It speaks device paths
// to the manager and host paths to inotify.
class LogMgrFileEventListener : public FileEventListener {
public:
    // The watches are added only once this object is whole: an event reaching
    // OnFileEvent while it was still being built would find no manager yet.
    LogMgrFileEventListener(LogManager* manager, const std::vector<std::string>& devicePaths, uint32_t mask);
    ~LogMgrFileEventListener() override;

    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& path) override;

    int Watch(const std::string& devicePath, uint32_t mask);
    bool Unwatch(const std::string& devicePath);

    // The device path of a watched host path (the path itself on a device).
    static std::string DeviceOf(const std::string& hostPath);

private:
    LogManager* manager_;
};

}  // namespace kolto
}  // namespace velmar
