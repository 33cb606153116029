#define LOG_TAG "dorvad"

#include "utils/dump/CapturePackager.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <host/Utf8.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <log/log.h>

#include "utils/BuildProbes.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/CaptureProgress.h"
#include "utils/dump/CmdTool.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/ConfinedPath.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/ZipFile.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::FileUtil;
using velmar::kolto::StringUtil;
using velmar::kolto::ZipFile;

constexpr char kCompressTag[] = "Tarnis-CaptureLogUtils";
constexpr int kNativeCrashExtraSeconds = 240;
constexpr int kMaxOpenedPerAttachment = 15;
constexpr int kWorkerCpus = 6;  // CPUs 0 to 5
constexpr int kLocalRecordCopySeconds = 60;
constexpr size_t kOfflineDbFields = 8;
// Captures whose own entry is packed under its bare name: online captures
// below the capture base, and local records. Matched anywhere in the path,
// so below a root as well.
constexpr char kCaptureBaseMark[] = "data/dorva/";
constexpr char kLocalRecordMark[] = "data/nuvilog/stability/reboot";

std::mutex& HooksLock() {
    static std::mutex* lock = new std::mutex;
    return *lock;
}
std::function<void(int)>& CompressObserverStore() {
    static auto* hook = new std::function<void(int)>;
    return *hook;
}
std::function<void()>& BeforePackStore() {
    static auto* hook = new std::function<void()>;
    return *hook;
}

// What the caller and the worker share. A worker that outlives the caller's
// deadline keeps its own reference, so nothing it touches is ever freed
// under it.
struct CompressJob {
    std::shared_ptr<ZipFile> zip;
    std::string zipPath;
    std::shared_ptr<base::unique_fd> zipDir;  // when set, the archive's directory, reached below its tree
    std::atomic<bool> done{false};
    std::mutex lock;
    std::condition_variable finished;
    std::function<void()> beforePack;
    std::function<void(bool)> afterPack;
};

// Binds the calling thread to CPUs 0 to 5, or to those of them this machine
// lets it run on.
void BindToFirstCpus() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
    cpu_set_t wanted;
    CPU_ZERO(&wanted);
    for (int cpu = 0; cpu < kWorkerCpus; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) CPU_SET(cpu, &wanted);
    }
    if (CPU_COUNT(&wanted) == 0) return;
    if (sched_setaffinity(0, sizeof(wanted), &wanted) != 0) {
        ALOGW("failed to bind CaptureLog_Comp to CPUs 0-5: %s", strerror(errno));
    }
}

std::string FileNameOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void RunCompressJob(const std::shared_ptr<CompressJob>& job) {
    pthread_setname_np(pthread_self(), "CaptureLog_Comp");
    BindToFirstCpus();
    if (job->beforePack) job->beforePack();
    ALOGD("_compress fullPath %s", StringUtil::ForLog(job->zipPath).c_str());
    bool complete = false;
    const bool inDir = job->zipDir != nullptr && job->zipDir->ok();
    const int dirFd = inDir ? job->zipDir->get() : AT_FDCWD;
    const std::string openName = inDir ? FileNameOf(job->zipPath) : job->zipPath;
    if (!(inDir ? job->zip->create(dirFd, openName, job->zipPath) : job->zip->create(job->zipPath))) {
        __android_log_print(ANDROID_LOG_ERROR, kCompressTag, "[%s] Create new zip failed!!", "_compress");
    } else {
        complete = job->zip->close();
        base::unique_fd fd(openat(dirFd, openName.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.ok()) {
            __android_log_print(ANDROID_LOG_ERROR, kCompressTag,
                                "[%s] failed to open file for fsync after compressing", "_compress");
        } else {
            fsync(fd.get());
        }
        if (inDir) {
            fchmodat(dirFd, openName.c_str(), 0777, AT_SYMLINK_NOFOLLOW);
        } else {
            FileUtil::ChangeMode(job->zipPath, 0777);
        }
    }
    if (job->afterPack) job->afterPack(complete);
    {
        std::lock_guard<std::mutex> guard(job->lock);
        job->done.store(true);
    }
    job->finished.notify_all();
}

void* CompressThreadMain(void* arg) {
    std::unique_ptr<std::shared_ptr<CompressJob>> job(static_cast<std::shared_ptr<CompressJob>*>(arg));
    RunCompressJob(*job);
    return nullptr;
}

bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

std::string WithoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}


std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> fields;
    size_t begin = 0;
    for (;;) {
        const size_t end = text.find(separator, begin);
        fields.push_back(text.substr(begin, end == std::string::npos ? std::string::npos : end - begin));
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    return fields;
}

// Beside the capture, unless `where` names a writable directory with its
// final slash on the partitions captures belong on. Such a `where` is the
// client's: `whereFd` gets it as opened below its partition, and the archive
// is written there through that descriptor alone.
std::string ArchivePath(const std::string& path, const char* rawWhere, base::unique_fd* whereFd) {
    if (rawWhere != nullptr && rawWhere[0] != '\0') {
        const std::string resolved = CaptureFile::ResolveWhere(rawWhere);
        std::string top;
        base::unique_fd opened = resolved.empty() ? base::unique_fd() : CaptureFile::OpenWhere(resolved, &top);
        if (!opened.ok()) {
            ALOGE("archive of %s goes beside it: %s is not a directory on the data, rescue or cache partition",
                  StringUtil::ForLog(path).c_str(), StringUtil::ForLog(rawWhere).c_str());
            return path + ".zip";
        }
        const std::string where = paths::Get(resolved);
        if (where.back() == '/' && faccessat(opened.get(), ".", W_OK, 0) == 0) {
            *whereFd = std::move(opened);
            return where + FileNameOf(path) + ".zip";
        }
    }
    return path + ".zip";
}

// Owner, group and mode of an archive or a copy; a link in its place is
// left alone.
void SetOwnerAndMode(const std::string& path, uid_t owner, mode_t mode) {
    if (fchownat(AT_FDCWD, path.c_str(), owner, kSystemUid, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
        ALOGD("chown %s failed: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    }
    // On a link this fails (EOPNOTSUPP): its target keeps its mode.
    if (fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
        ALOGD("chmod %s failed: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    }
}

// A link planted where an archive goes would have the archive written
// through it: it is removed, as a link and nothing more.
void RemoveLinkAt(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return;
    if (unlink(path.c_str()) == 0) {
        ALOGW("removed the link at %s, not written through", StringUtil::ForLog(path).c_str());
    } else {
        ALOGE("failed to remove the link at %s: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    }
}

// Packed native-crash files go, unless a test build or a developer keeps
// core dumps, or they are the tombstone monitor's own copies. Only what lies
// below the native-crash directory is ever deleted, never through a link.
void CleanNativeCrashFiles(const std::vector<std::string>& files) {
    if (ismtbftest() || base::GetBoolProperty("persist.reboot.coredump", false)) {
        for (const std::string& file : files) {
            ALOGE("skip delete file(%s) \n", StringUtil::ForLog(paths::Get(file)).c_str());
        }
        return;
    }
    for (const std::string& file : files) {
        const std::string keepDir = base::GetProperty("sys.tombstone.monitor.out.dir", paths::kNativeCrashTombstoneDir);
        const std::string shown = StringUtil::ForLog(paths::Get(file));
        if (Contains(file, keepDir.c_str())) {
            ALOGW("skip delete file(%s) \n", shown.c_str());
            continue;
        }
        ALOGE("delete file(%s) \n", shown.c_str());
        std::string why;
        if (!velmar::kolto::ConfinedPath::Remove(file, paths::kNativeCrashDir, &why)) {
            ALOGW("failed to remove file(%s) \n", shown.c_str());
            ALOGW("%s", why.c_str());
        }
    }
}

// An attachment is packed and its mode opened up only when it passes the
// check; `file` gets it with "." and ".." taken by name.
bool AcceptAttachment(const std::string& raw, std::string* file) {
    std::string why;
    base::unique_fd fd;
    if (!CapturePackager::CheckAttachment(raw, file, &fd, &why)) {
        ALOGE("attachment refused: %s", why.c_str());
        return false;
    }
    int count = 0;
    if (fd.ok()) CapturePackager::OpenUp(fd.get(), paths::Get(*file), &count);
    return true;
}

// The offline database keeps archives under a name built from fields of the
// archive's own name; names with too few fields are not copied.
void CopyToOfflineDatabase(const std::string& zipPath) {
    const std::string name = zipPath.substr(zipPath.find_last_of('/'));
    const std::vector<std::string> f = Split(name, '_');
    if (f.size() < kOfflineDbFields) {
        ALOGE("skip offline db copy of %s: %zu name fields, 8 needed", StringUtil::ForLog(zipPath).c_str(), f.size());
        return;
    }
    char stamp[32];
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%Y-%m-%d-%H-%M-%S", &local);
    const std::string copy = paths::Get(paths::kOfflineDbDir) + f[1] + "_" + stamp + "_" + f[5] + "_" + f[6] + "_" +
                             f[7] + "_" + f[3] + ".zip";
    if (copy_file(zipPath.c_str(), copy.c_str()) == 0) fchmodat(AT_FDCWD, copy.c_str(), 0775, AT_SYMLINK_NOFOLLOW);
}

// Captures of rules with a local record also go to the reboot directory.
void CopyToLocalRecord(const std::string& zipPath) {
    ALOGE("start copy log which ruleid is not -1");
    const std::string recordDir = paths::Get(paths::kLocalRecordDir);
    if (create_dir_if_needed(recordDir.c_str(), 0777) != 0) {
        ALOGE("failed to create %s: %s", StringUtil::ForLog(recordDir).c_str(), strerror(errno));
        return;
    }
    SetOwnerAndMode(recordDir, kSystemUid, 0777);
    // --remove-destination: a link planted at the copy's name in this
    // world-writable directory is replaced, never written through.
    // The paths go apart and after "--": a headline's commas or a leading
    // "-" never become options.
    CmdTool::run_command_lite({"cp", "-p", "--remove-destination", "--", zipPath, recordDir}, kLocalRecordCopySeconds);
    ALOGE("copy %s", StringUtil::ForLog(zipPath).c_str());
}

}  // namespace

void CapturePackager::SetHooksForTesting(std::function<void(int)> onCompress, std::function<void()> beforePack) {
    std::lock_guard<std::mutex> guard(HooksLock());
    CompressObserverStore() = std::move(onCompress);
    BeforePackStore() = std::move(beforePack);
}

bool CapturePackager::CheckAttachment(const std::string& raw, std::string* file, base::unique_fd* fd,
                                      std::string* why) {
    using velmar::kolto::ConfinedPath;
    std::string relative;
    if (!ConfinedPath::Relative(raw, paths::kDataMountPoint, &relative, why)) return false;
    *file = std::string(paths::kDataMountPoint) + "/" + relative;
    base::unique_fd opened = ConfinedPath::Open(*file, paths::kDataMountPoint, O_RDONLY | O_NONBLOCK, 0, why);
    // A missing file is no escape: the packer says it is missing.
    if (!opened.ok() && errno != ENOENT) return false;
    if (fd != nullptr) *fd = std::move(opened);
    return true;
}

void CapturePackager::IncludeZipFiles(const char* path, int* count) {
    if (*count > kMaxOpenedPerAttachment) return;
    base::unique_fd fd(TEMP_FAILURE_RETRY(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    if (!fd.ok()) {
        // A link is counted but neither followed nor opened up.
        ++*count;
        return;
    }
    OpenUp(fd.get(), path, count);
}

// Through descriptors only: the file's mode is changed on what was opened,
// and a directory's entries are opened from it, never through a link.
void CapturePackager::OpenUp(int fd, const std::string& path, int* count) {
    if (*count > kMaxOpenedPerAttachment) return;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (S_ISREG(st.st_mode) && paths::Get(paths::kUidErrors) != path) fchmod(fd, 0777);
        ++*count;
        return;
    }
    base::unique_fd copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
    velmar::kolto::ScopedDir dir = velmar::kolto::AdoptDir(copy);
    if (!dir) {
        ALOGE("Error in open dir %s", StringUtil::ForLog(path).c_str());
        return;
    }
    std::vector<std::string> children;
    while (struct dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        children.push_back(entry->d_name);
    }
    for (const std::string& child : children) {
        if (*count > kMaxOpenedPerAttachment) return;
        base::unique_fd childFd(
            TEMP_FAILURE_RETRY(openat(fd, child.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
        if (!childFd.ok()) {
            ++*count;
            continue;
        }
        OpenUp(childFd.get(), path + "/" + child, count);
    }
}

int CapturePackager::CompressWithTimeout(const std::string& zipPath, const std::string& path, std::vector<String16>* files,
                                         int timeoutSeconds, std::function<void(bool)> afterPack, int zipDirFd) {
    std::vector<std::string> packing;
    if (files != nullptr) {
        for (const String16& file : *files) packing.push_back(paths::Get(platform::ToUtf8(file)));
    }
    // With the tail depth of 2, an extra slash before the last one makes the
    // capture file's entry carry its bare name.
    std::string capture = path;
    if ((Contains(capture, kCaptureBaseMark) && Contains(capture, "online")) || Contains(capture, kLocalRecordMark)) {
        const size_t slash = capture.find_last_of('/');
        if (slash != std::string::npos) capture.insert(slash, "/");
        ALOGD("after addSlashBeforeLastSlash filePath %s", StringUtil::ForLog(capture).c_str());
    }
    packing.push_back(capture);

    auto job = std::make_shared<CompressJob>();
    job->zip = std::make_shared<ZipFile>(std::move(packing), 2);
    // Attachments are the client's: below the data partition, no link on the way is followed.
    job->zip->ConfineBelow(WithoutTrailingSlash(paths::Get(paths::kDataMountPoint)));
    job->zipPath = zipPath;
    job->afterPack = std::move(afterPack);
    // The worker may outlive this call: it keeps a descriptor of its own.
    if (zipDirFd >= 0) job->zipDir = std::make_shared<base::unique_fd>(fcntl(zipDirFd, F_DUPFD_CLOEXEC, 0));
    {
        std::lock_guard<std::mutex> guard(HooksLock());
        job->beforePack = BeforePackStore();
    }

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    pthread_t thread;
    auto* ref = new std::shared_ptr<CompressJob>(job);
    if (pthread_create(&thread, nullptr, CompressThreadMain, ref) != 0) {
        delete ref;
        LOG(FATAL) << "thread constructor failed";
    }
    {
        std::unique_lock<std::mutex> guard(job->lock);
        job->finished.wait_until(guard, deadline, [&] { return job->done.load(); });
    }
    if (job->done.load()) {
        pthread_join(thread, nullptr);
        return 0;
    }
    // The worker finishes the archive on its own; it holds the job alive.
    pthread_detach(thread);
    return -1;
}

std::string CapturePackager::ArchiveFor(const std::string& path, const char* where) {
    base::unique_fd whereFd;
    return ArchivePath(path, where, &whereFd);
}

int CapturePackager::Compress(const char* rawPath, const char* rawWhere, std::vector<String16>* files, int timeoutSeconds,
                              bool isRecordInLocal, std::function<void(bool)> afterPack) {
    const std::string path = paths::Get(rawPath);
    base::unique_fd whereFd;
    std::string zipPath = ArchivePath(path, rawWhere, &whereFd);

    int timeout = timeoutSeconds;
    bool hasGbg = false;
    std::vector<std::string> nativeCrashFiles;
    std::vector<String16> accepted;
    if (files != nullptr) {
        for (const String16& entry : *files) {
            std::string file;
            if (!AcceptAttachment(platform::ToUtf8(entry), &file)) continue;
            accepted.push_back(platform::ToUtf16(file));
            // Core dumps are large: each native crash gets four more minutes.
            if (velmar::kolto::ConfinedPath::IsBelow(file, paths::kNativeCrashDir)) {
                timeout += kNativeCrashExtraSeconds;
                nativeCrashFiles.push_back(file);
            }
            if (Contains(file, "gbg")) hasGbg = true;
        }
    }

    std::function<void(int)> observer;
    {
        std::lock_guard<std::mutex> guard(HooksLock());
        observer = CompressObserverStore();
    }
    if (observer) observer(timeout);
    if (!whereFd.ok()) RemoveLinkAt(zipPath);  // the writer replaces one in `where` itself
    const int result = CompressWithTimeout(zipPath, path, &accepted, timeout, std::move(afterPack), whereFd.get());

    if (hasGbg) {
        // -T: a link to a directory planted at the new name is replaced,
        // not taken for a directory to move the archive into.
        CmdTool::run_command_lite({"mv", "-T", "--", zipPath, zipPath + ".mtk"}, timeout);
        zipPath += ".mtk";
    }
    if (Contains(path, "_ne_") && !nativeCrashFiles.empty()) CleanNativeCrashFiles(nativeCrashFiles);
    CaptureProgress::Archive(paths::DeviceOf(zipPath));
    SetOwnerAndMode(zipPath, 0, 0774);
    if (base::GetBoolProperty("persist.sys.nuviofflinedb", false)) CopyToOfflineDatabase(zipPath);
    if (isRecordInLocal && Contains(zipPath, paths::kDorvaDir)) CopyToLocalRecord(zipPath);
    return result;
}

}  // namespace android
