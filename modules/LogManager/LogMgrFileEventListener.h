#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "framework/FileEventListener.h"

namespace velmar {
namespace kolto {

class LogManager;

// Watches the log directories for the log manager, each by the descriptor
// the manager opened below its root and reported by its device path.
class LogMgrFileEventListener : public FileEventListener {
public:
    // Starts with no watch: the manager adds each directory once it has
    // resolved it, and this object is whole by then.
    explicit LogMgrFileEventListener(LogManager* manager);
    ~LogMgrFileEventListener() override;

    void OnFileEvent(uint32_t mask, std::optional<std::string> name, const std::string& path) override;
    void OnQueueOverflow() override;

    // Watches the directory the manager opened below its root as `dirFd`,
    // reported as `devicePath`; 0 on success, the failure logged otherwise.
    int Watch(const std::string& devicePath, int dirFd, uint32_t mask);
    bool Unwatch(const std::string& devicePath);

private:
    LogManager* manager_;
};

}  // namespace kolto
}  // namespace velmar
