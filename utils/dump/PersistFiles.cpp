#define LOG_TAG "dorvad"

#include "utils/dump/PersistFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::StringUtil;

void EnsurePersistDir() {
    const std::string dir = paths::Get(paths::kPersistDir);
    DIR* d = opendir(dir.c_str());
    if (d != nullptr) {
        closedir(d);
        return;
    }
    mkdir(dir.c_str(), 0755);
}

// Write-only, created 0666 when absent, never truncated. Non-blocking, so that
// a FIFO without a reader fails instead of holding a binder thread; the last
// component is not followed, so a link planted at the name is not written
// through.
base::unique_fd OpenForWrite(const std::string& path) {
    int fd;
    do {
        fd = open(paths::Get(path).c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) ALOGD("failed to open %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    return base::unique_fd(fd);
}

}  // namespace

void PersistFiles::List(std::string& out) {
    const std::string dir = paths::Get(paths::kPersistDir);
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        mkdir(dir.c_str(), 0755);
        ALOGD("persist file does not exist ,create this dir.");
        return;
    }
    while (struct dirent* entry = readdir(d)) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        // Hidden names are left out; a name starting with ".." is listed.
        if (name[0] == '.' && name[1] != '.') continue;
        if (!out.empty()) out += ",";
        out += std::string(paths::kPersistDir) + "/" + name;
    }
    closedir(d);
}

void PersistFiles::Read(const std::string& path, std::string& out) {
    base::unique_fd fd(open(paths::Get(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.ok()) {
        ALOGD("failed to open %s", StringUtil::ForLog(path).c_str());
        return;
    }
    // A device or FIFO has no end to read to (/dev/zero) or may never answer.
    struct stat st;
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        ALOGE("readFile: %s is not a regular file; nothing read", StringUtil::ForLog(path).c_str());
        return;
    }
    char buffer[1022];
    size_t total = 0;
    for (;;) {
        const ssize_t n = read(fd.get(), buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        const size_t take = std::min(static_cast<size_t>(n), kMaxReadBytes - total);
        out.append(buffer, take);
        total += take;
        if (total == kMaxReadBytes) {
            ALOGE("readFile: %s is larger than %zu bytes; the rest is not returned", StringUtil::ForLog(path).c_str(),
                  kMaxReadBytes);
            break;
        }
    }
}

int PersistFiles::Create(const std::string& path) {
    EnsurePersistDir();
    base::unique_fd fd = OpenForWrite(path);
    return fd.ok() ? 0 : -1;
}

ssize_t PersistFiles::Write(const std::string& path, const std::string& content) {
    base::unique_fd fd = OpenForWrite(path);
    if (!fd.ok()) return -1;
    ssize_t n;
    do {
        n = write(fd.get(), content.data(), content.size());
    } while (n < 0 && errno == EINTR);
    if (n <= 0) ALOGD("read %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    return n;
}

}  // namespace android
