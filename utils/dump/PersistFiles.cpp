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

#include "utils/ConfinedPath.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::ConfinedPath;
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

// Write-only, created 0666 when absent, never truncated. Found below the
// persist directory without following a link on the way or at the name;
// non-blocking, so that a FIFO without a reader fails instead of holding a
// binder thread.
base::unique_fd OpenForWrite(const std::string& path) {
    std::string why;
    base::unique_fd fd = ConfinedPath::Open(path, paths::kPersistDir, O_WRONLY | O_CREAT | O_NONBLOCK, 0666, &why);
    if (!fd.ok()) ALOGE("persist file refused: %s", why.c_str());
    return fd;
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

bool PersistFiles::Check(const std::string& path, std::string* why) {
    std::string leaf;
    const base::unique_fd parent = ConfinedPath::OpenParent(path, paths::kPersistDir, &leaf, why);
    if (parent.ok()) {
        struct stat st;
        if (fstatat(parent.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISLNK(st.st_mode)) return true;
        *why = "\"" + StringUtil::ForLog(path, 256) + "\" passes through a symbolic link";
        return false;
    }
    // A missing directory is no escape: the call itself then fails as before.
    return errno == ENOENT;
}

void PersistFiles::Read(const std::string& path, std::string& out) {
    // A device or FIFO has no end to read to (/dev/zero) or may never answer:
    // only a regular file below the persist directory is read.
    std::string why;
    base::unique_fd fd = ConfinedPath::OpenRegular(path, paths::kPersistDir, O_RDONLY, 0, &why);
    if (!fd.ok()) {
        ALOGE("readFile: %s; nothing read", why.c_str());
        return;
    }
    char buffer[1022];
    size_t total = 0;
    for (;;) {
        const ssize_t n = TEMP_FAILURE_RETRY(read(fd.get(), buffer, sizeof(buffer)));
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
    return WriteTo(OpenForWrite(path), path, content);
}

ssize_t PersistFiles::WriteOwn(const std::string& path, const std::string& content) {
    base::unique_fd fd(TEMP_FAILURE_RETRY(
        open(paths::Get(path).c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0666)));
    if (!fd.ok()) ALOGD("failed to open %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    return WriteTo(std::move(fd), path, content);
}

ssize_t PersistFiles::WriteTo(base::unique_fd fd, const std::string& path, const std::string& content) {
    if (!fd.ok()) return -1;
    const ssize_t n = TEMP_FAILURE_RETRY(write(fd.get(), content.data(), content.size()));
    if (n <= 0) ALOGD("read %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    return n;
}

}  // namespace android
