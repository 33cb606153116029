#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <cutils/properties.h>
#include <host/Host.h>
#include <host/WaitForProperty.h>

#include "platform/seam/Dirs.h"
#include "platform/InitServices.h"

namespace platform {
namespace {

constexpr char kStoreDir[] = "/dev/__properties__";

bool ReadValue(const std::string& key, std::string* value) {
    if (!IsValidPropertyName(key)) return false;
    android::base::unique_fd fd(open((PropertyStoreDir() + "/" + key).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (fd.get() < 0) return false;
    std::string result;
    char buffer[512];
    for (;;) {
        ssize_t n = read(fd.get(), buffer, sizeof(buffer));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) break;
        result.append(buffer, static_cast<size_t>(n));
    }
    *value = std::move(result);
    return true;
}

bool WriteValue(const std::string& key, const std::string& value) {
    const std::string dir = PropertyStoreDir();
    if (!MakeDirs(dir)) return false;
    static std::atomic<unsigned> counter{0};
    char tmpName[96];
    snprintf(tmpName, sizeof(tmpName), "/.tmp.%d.%ld.%u", static_cast<int>(getpid()),
             static_cast<long>(syscall(SYS_gettid)), counter.fetch_add(1));
    const std::string tmp = dir + tmpName;
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < value.size()) {
        ssize_t n = write(fd, value.data() + done, value.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            close(fd);
            unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    close(fd);
    // The rename publishes the whole value at once: readers and waiters never
    // see a half-written one.
    if (rename(tmp.c_str(), (dir + "/" + key).c_str()) != 0) {
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

// Waits until `ready` holds, woken by changes to the store directory.
template <typename Ready>
bool WaitOnStore(std::chrono::milliseconds timeout, Ready ready) {
    const std::string dir = PropertyStoreDir();
    MakeDirs(dir);
    android::base::unique_fd inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (inotify.get() < 0 ||
        inotify_add_watch(inotify.get(), dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_CREATE) < 0) {
        PLOG(ERROR) << "Cannot watch the property store " << dir;
        return false;
    }
    const bool forever = timeout == std::chrono::milliseconds::max();
    const auto deadline = forever ? std::chrono::steady_clock::time_point::max()
                                  : std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // The watch exists before each look, so no change can slip between
        // the look and the wait.
        if (ready()) return true;
        int waitMs = -1;
        if (!forever) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            waitMs = left.count() > 1000000000 ? 1000000000 : static_cast<int>(left.count());
        }
        struct pollfd pfd = {inotify.get(), POLLIN, 0};
        int n = poll(&pfd, 1, waitMs);
        if (n < 0 && errno != EINTR) return false;
        if (n > 0) {
            char events[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
            while (read(inotify.get(), events, sizeof(events)) > 0) {
            }
        }
    }
}

}  // namespace

std::string PropertyStoreDir() { return DevicePath(kStoreDir); }

std::map<std::string, std::string> ListProperties() {
    std::map<std::string, std::string> result;
    ScopedDir dir(opendir(PropertyStoreDir().c_str()));
    if (!dir) return result;
    while (struct dirent* entry = readdir(dir.get())) {
        std::string name = entry->d_name;
        std::string value;
        if (IsValidPropertyName(name) && ReadValue(name, &value)) result[name] = value;
    }
    return result;
}

}  // namespace platform

int property_list(void (*fn)(const char* key, const char* value, void* cookie), void* cookie) {
    if (fn == nullptr) return -1;
    for (const auto& [name, value] : platform::ListProperties()) fn(name.c_str(), value.c_str(), cookie);
    return 0;
}

namespace android {
namespace base {

std::string GetProperty(const std::string& key, const std::string& default_value) {
    std::string value;
    if (platform::ReadValue(key, &value) && !value.empty()) return value;
    return default_value;
}

bool GetBoolProperty(const std::string& key, bool default_value) {
    const std::string value = GetProperty(key, "");
    if (value == "1" || value == "y" || value == "yes" || value == "on" || value == "true") return true;
    if (value == "0" || value == "n" || value == "no" || value == "off" || value == "false") return false;
    return default_value;
}

// libbase's own definitions read a map inside one process; these read the
// shared store, and as the program's own they are the ones every caller and
// libbase itself resolve to.
template <typename T>
T GetIntProperty(const std::string& key, T default_value, T min, T max) {
    T result;
    return ParseInt(GetProperty(key, ""), &result, min, max) ? result : default_value;
}

template <typename T>
T GetUintProperty(const std::string& key, T default_value, T max) {
    T result;
    return ParseUint(GetProperty(key, ""), &result, max) ? result : default_value;
}

template int8_t GetIntProperty(const std::string&, int8_t, int8_t, int8_t);
template int16_t GetIntProperty(const std::string&, int16_t, int16_t, int16_t);
template int32_t GetIntProperty(const std::string&, int32_t, int32_t, int32_t);
template int64_t GetIntProperty(const std::string&, int64_t, int64_t, int64_t);
template uint8_t GetUintProperty(const std::string&, uint8_t, uint8_t);
template uint16_t GetUintProperty(const std::string&, uint16_t, uint16_t);
template uint32_t GetUintProperty(const std::string&, uint32_t, uint32_t);
template uint64_t GetUintProperty(const std::string&, uint64_t, uint64_t);

bool SetProperty(const std::string& key, const std::string& value) {
    if (!platform::IsValidPropertyName(key)) return false;
    const bool readOnly = key.compare(0, 3, "ro.") == 0;
    if (!readOnly && value.size() >= PROPERTY_VALUE_MAX) return false;
    if (value.find('\0') != std::string::npos) return false;
    if (readOnly) {
        std::string current;
        if (platform::ReadValue(key, &current)) return false;
    }
    if (!platform::WriteValue(key, value)) return false;
    platform::HandleControlProperty(key, value);
    return true;
}

bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout) {
    return platform::WaitOnStore(relative_timeout, [&] {
        std::string value;
        return platform::ReadValue(key, &value) && value == expected_value;
    });
}

bool WaitForPropertyCreation(const std::string& key, std::chrono::milliseconds relative_timeout) {
    return platform::WaitOnStore(relative_timeout, [&] {
        std::string value;
        return platform::ReadValue(key, &value);
    });
}

}  // namespace base
}  // namespace android

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string result = android::base::GetProperty(key != nullptr ? key : "", "");
    if (result.empty() && default_value != nullptr) result = default_value;
    size_t len = std::min(result.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
    memcpy(value, result.data(), len);
    value[len] = '\0';
    return static_cast<int>(len);
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr) return -1;
    return android::base::SetProperty(key, value != nullptr ? value : "") ? 0 : -1;
}
