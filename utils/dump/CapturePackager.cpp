#define LOG_TAG "dorvad"

#include "utils/dump/CapturePackager.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

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

#include "utils/dump/BuildProbes.h"
#include "utils/dump/CaptureFile.h"
#include "utils/dump/CmdTool.h"
#include "utils/dump/DirectoryHelpers.h"
#include "utils/FileUtil.h"
#include "utils/Paths.h"
#include "utils/ScopedDir.h"
#include "utils/StringUtil.h"
#include "utils/ZipFile.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::FileUtil;
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
    std::atomic<bool> done{false};
    std::mutex lock;
    std::condition_variable finished;
    std::function<void()> beforePack;
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

void RunCompressJob(const std::shared_ptr<CompressJob>& job) {
    pthread_setname_np(pthread_self(), "CaptureLog_Comp");
    BindToFirstCpus();
    if (job->beforePack) job->beforePack();
    ALOGD("_compress fullPath %s", job->zipPath.c_str());
    if (!job->zip->create(job->zipPath)) {
        __android_log_print(ANDROID_LOG_ERROR, kCompressTag, "[%s] Create new zip failed!!", "_compress");
    } else {
        job->zip->close();
        base::unique_fd fd(open(job->zipPath.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.ok()) {
            __android_log_print(ANDROID_LOG_ERROR, kCompressTag,
                                "[%s] failed to open file for fsync after compressing", "_compress");
        } else {
            fsync(fd.get());
        }
        FileUtil::ChangeMode(job->zipPath, 0777);
    }
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

std::string FileNameOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
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

bool IsWritableDir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access(path.c_str(), W_OK) == 0;
}

// Beside the capture, unless `where` names a writable directory with its
// final slash on the partitions captures belong on.
std::string ArchivePath(const std::string& path, const char* rawWhere) {
    if (rawWhere != nullptr && rawWhere[0] != '\0') {
        const std::string resolved = CaptureFile::ResolveWhere(rawWhere);
        if (resolved.empty()) {
            ALOGE("archive of %s goes beside it: %s is not a directory on the data, rescue or cache partition",
                  path.c_str(), velmar::kolto::StringUtil::ForLog(rawWhere).c_str());
            return path + ".zip";
        }
        const std::string where = paths::Get(resolved);
        if (where.back() == '/' && IsWritableDir(where)) return where + FileNameOf(path) + ".zip";
    }
    return path + ".zip";
}

// Owner, group and mode of an archive or a copy; a link in its place is
// left alone.
void SetOwnerAndMode(const std::string& path, uid_t owner, mode_t mode) {
    if (fchownat(AT_FDCWD, path.c_str(), owner, kSystemUid, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
        ALOGD("chown %s failed: %s", path.c_str(), strerror(errno));
    }
    // On a link this fails (EOPNOTSUPP): its target keeps its mode.
    if (fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) != 0 && errno != ENOENT) {
        ALOGD("chmod %s failed: %s", path.c_str(), strerror(errno));
    }
}

// A link planted where an archive goes would have the archive written
// through it: it is removed, as a link and nothing more.
void RemoveLinkAt(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return;
    if (unlink(path.c_str()) == 0) {
        ALOGW("removed the link at %s, not written through", path.c_str());
    } else {
        ALOGE("failed to remove the link at %s: %s", path.c_str(), strerror(errno));
    }
}

// Packed native-crash files go, unless a test build or a developer keeps
// core dumps, or they are the tombstone monitor's own copies.
void CleanNativeCrashFiles(const std::vector<std::string>& files) {
    if (ismtbftest() || base::GetBoolProperty("persist.reboot.coredump", false)) {
        for (const std::string& file : files) ALOGE("skip delete file(%s) \n", file.c_str());
        return;
    }
    for (const std::string& file : files) {
        const std::string keepDir =
            paths::Get(base::GetProperty("sys.tombstone.monitor.out.dir", paths::kNativeCrashTombstoneDir));
        if (Contains(file, keepDir.c_str())) {
            ALOGW("skip delete file(%s) \n", file.c_str());
            continue;
        }
        ALOGE("delete file(%s) \n", file.c_str());
        if (access(file.c_str(), F_OK) == 0 && remove(file.c_str()) != 0) {
            ALOGW("failed to remove file(%s) \n", file.c_str());
        }
    }
}

// The offline database keeps archives under a name built from fields of the
// archive's own name; names with too few fields are not copied.
void CopyToOfflineDatabase(const std::string& zipPath) {
    const std::string name = zipPath.substr(zipPath.find_last_of('/'));
    const std::vector<std::string> f = Split(name, '_');
    if (f.size() < kOfflineDbFields) {
        ALOGE("skip offline db copy of %s: %zu name fields, 8 needed", zipPath.c_str(), f.size());
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
        ALOGE("failed to create %s: %s", recordDir.c_str(), strerror(errno));
        return;
    }
    SetOwnerAndMode(recordDir, kSystemUid, 0777);
    // --remove-destination: a link planted at the copy's name in this
    // world-writable directory is replaced, never written through.
    const std::string params = "-p,--remove-destination," + zipPath + "," + recordDir;
    CmdTool::run_command_lite("cp", params.c_str(), kLocalRecordCopySeconds);
    ALOGE("copy %s", zipPath.c_str());
}

}  // namespace

void CapturePackager::SetHooksForTesting(std::function<void(int)> onCompress, std::function<void()> beforePack) {
    std::lock_guard<std::mutex> guard(HooksLock());
    CompressObserverStore() = std::move(onCompress);
    BeforePackStore() = std::move(beforePack);
}

void CapturePackager::IncludeZipFiles(const char* path, int* count) {
    if (*count > kMaxOpenedPerAttachment) return;
    struct stat st;
    if (lstat(path, &st) != 0 || !S_ISDIR(st.st_mode)) {
        // A link is counted but neither followed nor opened up: its target
        // is not the capture's to change.
        if (paths::Get(paths::kUidErrors) != path) fchmodat(AT_FDCWD, path, 0777, AT_SYMLINK_NOFOLLOW);
        ++*count;
        return;
    }
    velmar::kolto::ScopedDir dir(opendir(path));
    if (!dir) {
        ALOGE("Error in open dir %s", path);
        return;
    }
    std::vector<std::string> children;
    while (struct dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        children.push_back(std::string(path) + "/" + entry->d_name);
    }
    dir.reset();
    for (const std::string& child : children) IncludeZipFiles(child.c_str(), count);
}

int CapturePackager::CompressWithTimeout(const std::string& zipPath, const std::string& path, Vector<String16>* files,
                                         int timeoutSeconds) {
    std::vector<std::string> packing;
    if (files != nullptr) {
        for (const String16& file : *files) packing.push_back(paths::Get(String8(file)));
    }
    // With the tail depth of 2, an extra slash before the last one makes the
    // capture file's entry carry its bare name.
    std::string capture = path;
    if ((Contains(capture, kCaptureBaseMark) && Contains(capture, "online")) || Contains(capture, kLocalRecordMark)) {
        const size_t slash = capture.find_last_of('/');
        if (slash != std::string::npos) capture.insert(slash, "/");
        ALOGD("after addSlashBeforeLastSlash filePath %s", capture.c_str());
    }
    packing.push_back(capture);

    auto job = std::make_shared<CompressJob>();
    job->zip = std::make_shared<ZipFile>(std::move(packing), 2);
    job->zipPath = zipPath;
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

int CapturePackager::Compress(const char* rawPath, const char* rawWhere, Vector<String16>* files, int timeoutSeconds,
                              bool isRecordInLocal) {
    const std::string path = paths::Get(rawPath);
    std::string zipPath = ArchivePath(path, rawWhere);

    int timeout = timeoutSeconds;
    bool hasGbg = false;
    std::vector<std::string> nativeCrashFiles;
    if (files != nullptr) {
        for (const String16& entry : *files) {
            const std::string file = paths::Get(String8(entry));
            // Core dumps are large: each native crash gets four more minutes.
            if (Contains(file, paths::kNativeCrashDir)) {
                timeout += kNativeCrashExtraSeconds;
                nativeCrashFiles.push_back(file);
            }
            if (Contains(file, "gbg")) hasGbg = true;
            if (access(file.c_str(), F_OK) == 0) {
                int count = 0;
                IncludeZipFiles(file.c_str(), &count);
            }
        }
    }

    std::function<void(int)> observer;
    {
        std::lock_guard<std::mutex> guard(HooksLock());
        observer = CompressObserverStore();
    }
    if (observer) observer(timeout);
    RemoveLinkAt(zipPath);
    const int result = CompressWithTimeout(zipPath, path, files, timeout);

    if (hasGbg) {
        // -T: a link to a directory planted at the new name is replaced,
        // not taken for a directory to move the archive into.
        const std::string params = "-T," + zipPath + "," + zipPath + ".mtk";
        CmdTool::run_command_lite("mv", params.c_str(), timeout);
        zipPath += ".mtk";
    }
    if (Contains(path, "_ne_") && !nativeCrashFiles.empty()) CleanNativeCrashFiles(nativeCrashFiles);
    SetOwnerAndMode(zipPath, 0, 0774);
    if (base::GetBoolProperty("persist.sys.nuviofflinedb", false)) CopyToOfflineDatabase(zipPath);
    if (isRecordInLocal && Contains(zipPath, paths::kDorvaDir)) CopyToLocalRecord(zipPath);
    return result;
}

}  // namespace android
