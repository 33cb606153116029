#include "platform/binder/ServiceManager.h"

#include <dirent.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <host/Host.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/BpBinder.h"
#include "platform/binder/WireIo.h"
#include "platform/seam/Dirs.h"

namespace android {
namespace {

constexpr size_t kMaxEncodedName = 100;
constexpr size_t kMaxNameLength = 1024;
const char* const kManifests[] = {"/system/etc/vintf/manifest.txt", "/vendor/etc/vintf/manifest.txt"};

bool SocketExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

}  // namespace

ServiceManager& ServiceManager::instance() {
    // Lives as long as the process. A forked child starts with no services of
    // its own: its parent's local objects are not its to hand out.
    static std::mutex creation;
    static ServiceManager* manager = nullptr;
    static pid_t owner = 0;
    std::lock_guard<std::mutex> lock(creation);
    if (manager == nullptr || owner != getpid()) {
        manager = new ServiceManager();
        owner = getpid();
    }
    return *manager;
}

std::string ServiceManager::ServiceDir() { return platform::DevicePath("/dev/binder"); }

std::string ServiceManager::EncodeName(const std::string& name) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        bool plain = isalnum(c) || c == '_' || c == '-' || (c == '.' && i > 0);
        if (plain) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 15]);
        }
    }
    if (out.size() > kMaxEncodedName) {
        uint64_t hash = 1469598103934665603ULL;  // FNV-1a
        for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ULL;
        char tail[24];
        snprintf(tail, sizeof(tail), "~%016llx", static_cast<unsigned long long>(hash));
        out = out.substr(0, kMaxEncodedName - 20) + tail;
    }
    return out;
}

std::string ServiceManager::DecodeName(const std::string& fileName) {
    std::string out;
    for (size_t i = 0; i < fileName.size(); ++i) {
        char c = fileName[i];
        if (c == '~') return "";
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        if (i + 2 >= fileName.size() || !isxdigit(fileName[i + 1]) || !isxdigit(fileName[i + 2])) return "";
        out.push_back(static_cast<char>(std::stoi(fileName.substr(i + 1, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

std::string ServiceManager::SocketPath(const std::string& name) { return ServiceDir() + "/" + EncodeName(name); }

status_t ServiceManager::addService(const std::string& name, const sp<IBinder>& binder) {
    if (binder == nullptr) return STATUS_UNEXPECTED_NULL;
    if (name.empty() || name.size() > kMaxNameLength) {
        LOG(ERROR) << "addService: invalid service name of " << name.size() << " bytes";
        return BAD_VALUE;
    }
    if (binder->remoteBinder() != nullptr) {
        // Only this process's own objects can be served from here.
        LOG(ERROR) << "addService: " << name << " is a proxy, not a local object";
        return INVALID_OPERATION;
    }
    std::string dir = ServiceDir();
    if (!platform::MakeDirs(dir)) {
        PLOG(ERROR) << "addService: cannot create " << dir;
        return UNKNOWN_ERROR;
    }
    std::string path = SocketPath(name);
    std::lock_guard<std::mutex> lock(lock_);
    if (local_.count(path) == 0 && SocketExists(path)) {
        if (WireIo::Connect(path).ok()) {
            LOG(ERROR) << "addService: " << name << " is already served by another process";
            return ALREADY_EXISTS;
        }
        unlink(path.c_str());  // left behind by a process that died
    }
    std::string temp = dir + "/.new." + std::to_string(getpid()) + "." + EncodeName(name);
    unlink(temp.c_str());
    base::unique_fd listener = WireIo::Bind(temp);
    if (!listener.ok() || listen(listener.get(), 128) < 0) {
        PLOG(ERROR) << "addService: cannot listen for " << name << " at " << temp;
        unlink(temp.c_str());
        return UNKNOWN_ERROR;
    }
    // Clients of every uid may call (the services check callers themselves).
    chmod(temp.c_str(), 0666);
    if (rename(temp.c_str(), path.c_str()) < 0) {
        PLOG(ERROR) << "addService: cannot publish " << name << " at " << path;
        unlink(temp.c_str());
        return UNKNOWN_ERROR;
    }
    BinderProcess::self().addListener(path, name, std::move(listener), binder);
    local_[path] = binder;
    return OK;
}

sp<IBinder> ServiceManager::checkService(const std::string& name) {
    std::string path = SocketPath(name);
    {
        std::lock_guard<std::mutex> lock(lock_);
        auto it = local_.find(path);
        if (it != local_.end()) return it->second;
    }
    return BpBinder::Connect(name, path);
}

bool ServiceManager::inManifest(const std::string& name) {
    for (const char* manifest : kManifests) {
        std::ifstream in(platform::DevicePath(manifest));
        std::string line;
        while (std::getline(in, line)) {
            size_t hash = line.find('#');
            if (hash != std::string::npos) line.resize(hash);
            if (Trim(line) == name) return true;
        }
    }
    return false;
}

bool ServiceManager::isDeclared(const std::string& name) {
    std::string path = SocketPath(name);
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (local_.count(path) > 0) return true;
    }
    return SocketExists(path) || inManifest(name);
}

sp<IBinder> ServiceManager::waitForService(const std::string& name, int timeoutMs) {
    if (!isDeclared(name)) return nullptr;
    std::string dir = ServiceDir();
    if (!platform::MakeDirs(dir)) {
        PLOG(ERROR) << "waitForService: cannot create " << dir;
        return nullptr;
    }
    base::unique_fd inotify(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!inotify.ok() ||
        inotify_add_watch(inotify.get(), dir.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) < 0) {
        PLOG(ERROR) << "waitForService: cannot watch " << dir;
        return nullptr;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    bool logged = false;
    for (;;) {
        // Looked at after the watch is in place, so a service that appears in
        // between is not missed.
        sp<IBinder> binder = checkService(name);
        if (binder != nullptr) return binder;
        if (!logged) {
            LOG(INFO) << "Waiting for service " << name << "...";
            logged = true;
        }
        int wait = -1;
        if (timeoutMs >= 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return nullptr;
            wait = static_cast<int>(left.count());
        }
        pollfd pfd{inotify.get(), POLLIN, 0};
        int r = poll(&pfd, 1, wait);
        if (r < 0 && errno != EINTR) return nullptr;
        char events[4096];
        while (read(inotify.get(), events, sizeof(events)) > 0) {
        }
    }
}

bool ServiceManager::removeService(const std::string& name) {
    std::string path = SocketPath(name);
    std::lock_guard<std::mutex> lock(lock_);
    auto it = local_.find(path);
    if (it == local_.end()) return false;
    BinderProcess::self().removeListener(path);
    unlink(path.c_str());
    local_.erase(it);
    return true;
}

void ServiceManager::removeAllServices() {
    std::lock_guard<std::mutex> lock(lock_);
    for (const auto& [path, binder] : local_) {
        BinderProcess::self().removeListener(path);
        unlink(path.c_str());
    }
    local_.clear();
}

std::vector<std::string> ServiceManager::listServices() {
    std::vector<std::string> names;
    platform::ScopedDir dir(opendir(ServiceDir().c_str()));
    if (!dir) return names;
    while (dirent* e = readdir(dir.get())) {
        if (e->d_name[0] == '.') continue;
        std::string name = DecodeName(e->d_name);
        if (!name.empty() && SocketExists(ServiceDir() + "/" + e->d_name)) names.push_back(name);
    }
    return names;
}

}  // namespace android
