#define LOG_TAG "CaptureServerThread"

#include "modules/CaptureServer/CaptureServerThread.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include <aidl/vendor/velmar/hardware/kolto/common/IKoltoImpl.h>
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/binder_manager.h>
#include <android/sharedmem.h>
#include <cutils/sockets.h>
#include <log/log.h>

#include "utils/CaptureLayout.h"
#include "utils/Paths.h"
#include "utils/StringUtil.h"
#include "utils/TempName.h"
#include "utils/dump/CaptureLogUtil.h"
#include "utils/dump/CaptureProgress.h"
#include "utils/dump/DirectoryHelpers.h"

namespace android {
namespace {

namespace paths = velmar::kolto::paths;
using velmar::kolto::StringUtil;
using aidl::vendor::velmar::hardware::kolto::common::Ashmem;
using aidl::vendor::velmar::hardware::kolto::common::IKoltoImpl;

constexpr char kControlSocket[] = "dorvad";
constexpr char kZelteeLogName[] = "zeltee.log";
constexpr char kResponse[] = "finish";
constexpr size_t kHeaderSize = CaptureServerThread::kRequestHeaderBytes;
// Smaller archives hold no more than the headers of failed steps.
constexpr off_t kMinArchiveBytes = 1024;
// The secure world's log is a ring of a few MiB; a HAL that reports more is not believed.
constexpr int64_t kMaxSecurityLogBytes = 64 << 20;

std::atomic<int> gIoTimeoutMs{10 * 1000};


// A name that stays one directory below the base and reads as text.
bool IsPlainRequest(const std::string& request) {
    if (request.empty() || request == "." || request == "..") return false;
    for (unsigned char c : request) {
        if (c == '/' || c < 0x20 || c == 0x7f) return false;
    }
    return true;
}

// A property's value as part of a file name: a slash would make it a path,
// a control byte would forge log lines, and any process that may set the
// property could make the name longer than a file system allows.
std::string NamePart(const std::string& property) {
    constexpr size_t kMaxNamePart = 64;
    std::string value = base::GetProperty(property, "unknown").substr(0, kMaxNamePart);
    for (char& c : value) {
        if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '_';
    }
    return value;
}

std::string LocalTimeForName() {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d_%H-%M-%S", &local);
    return text;
}

// Makes `path` (its parent must exist) a directory of root and the system
// group, mode 0775. Owner and mode are set through a descriptor that refuses
// a link, so a link planted in its place never has its target changed.
bool MakeCaptureDir(const std::string& path) {
    if (create_dir_if_needed(path.c_str(), 0775) != 0) {
        ALOGE("Failed to create path: %s\n", StringUtil::ForLog(path).c_str());
        return false;
    }
    std::string clean = path;
    while (clean.size() > 1 && clean.back() == '/') clean.pop_back();
    base::unique_fd dir(open(clean.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        ALOGE("Failed to create path: %s\n", StringUtil::ForLog(path).c_str());
        return false;
    }
    if (fchown(dir.get(), 0, kSystemUid) != 0)
        ALOGD("chown %s failed: %s", StringUtil::ForLog(path).c_str(), strerror(errno));
    fchmod(dir.get(), 0775);
    return true;
}

int StatusCode(const ndk::ScopedAStatus& status) {
    return status.getExceptionCode() == EX_SERVICE_SPECIFIC ? status.getServiceSpecificError()
                                                             : status.getStatus();
}

// Writes `size` bytes to `path` under a temporary name first, so that a
// half-written copy never appears under its name and a link planted there
// is replaced, not written through.
bool WriteCopy(const std::string& path, const void* data, size_t size) {
    return velmar::kolto::TempName::WriteWhole(path, std::string(static_cast<const char*>(data), size), 0644);
}

}  // namespace

void CaptureServerThread::SetIoTimeoutMsForTesting(int ms) { gIoTimeoutMs.store(ms > 0 ? ms : 10 * 1000); }

CaptureServerThread::CaptureServerThread(velmar::kolto::StopSignal& stop, Tally& tally)
    : CaptureServerThread(&stop, &tally) {}

CaptureServerThread::CaptureServerThread() : CaptureServerThread(nullptr, nullptr) {}

CaptureServerThread::CaptureServerThread(velmar::kolto::StopSignal* stop, Tally* tally)
    : ownStop_(stop == nullptr ? std::make_unique<velmar::kolto::StopSignal>() : nullptr),
      stop_(stop != nullptr ? *stop : *ownStop_),
      tally_(tally != nullptr ? *tally : ownTally_) {
    abUpdate_ = base::GetBoolProperty("ro.build.ab_update", false);
    baseDir_ = paths::kCaptureServerDir.For(abUpdate_);
    zelteeCopyPath_ = baseDir_ + "/" + kZelteeLogName;
    MakeCaptureDir(paths::Get(baseDir_));
    velmar::kolto::TempName::RemoveLeftovers(paths::Get(baseDir_));
    FetchSecurityLog();
}

void CaptureServerThread::FetchSecurityLog() {
    ALOGI("Attempting to obtain the Kolto service");
    // No vendor HAL is declared on devices without one: the look-up then
    // comes back empty at once instead of waiting.
    std::shared_ptr<IKoltoImpl> kolto;
    if (AServiceManager_isDeclared(kKoltoInstance)) {
        kolto = IKoltoImpl::fromBinder(AServiceManager_checkService(kKoltoInstance));
    }
    if (kolto == nullptr) {
        ALOGE("Kolto service cannot obtain");
        return;
    }
    ALOGI("Successfully obtained the Kolto service");
    ALOGI("zelteelog_path is: %s\n", StringUtil::ForLog(paths::Get(zelteeCopyPath_)).c_str());

    const char* dir = paths::kZelteeLogDir;
    int64_t size = 0;
    ndk::ScopedAStatus status = kolto->GetFileSize(dir, kZelteeLogName, &size);
    if (!status.isOk()) {
        ALOGE("koltoReadMtkSecurityLog GetFileSize failed, error = %d", StatusCode(status));
        return;
    }
    ALOGI("koltoReadMtkSecurityLog GetFileSize success:, filepath:%s/%s size is %" PRId64 ".", dir, kZelteeLogName,
          size);

    base::unique_fd memory;
    if (size > 0 && size <= kMaxSecurityLogBytes) {
        memory.reset(ASharedMemory_create("shared_memory", static_cast<size_t>(size)));
    }
    if (!memory.ok()) {
        ALOGE("Failed to create shared memory");
        return;
    }
    Ashmem region;
    region.fd.reset(base::unique_fd(dup(memory.get())));
    region.size = size;
    status = kolto->ReadFromFile(dir, kZelteeLogName, region, size);
    if (!status.isOk()) {
        ALOGE("koltoReadMtkSecurityLog ReadFromFile failed, error = %d", StatusCode(status));
        return;
    }
    ALOGI("koltoReadMtkSecurityLog ReadFromFile success:, filepath:%s/%s size is %" PRId64 ".", dir, kZelteeLogName,
          size);
    void* data = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, memory.get(), 0);
    if (data == MAP_FAILED) {
        ALOGE("Failed to map shared memory");
        return;
    }
    if (!WriteCopy(paths::Get(zelteeCopyPath_), data, static_cast<size_t>(size))) ALOGE("cannot open zelteelog file !");
    if (munmap(data, static_cast<size_t>(size)) != 0) ALOGE("Failed to unmap shared memory");
}

int CaptureServerThread::threadLoop() {
    errno = 0;
    const int listener = android_get_control_socket(kControlSocket);
    if (listener < 0) {
        ALOGE("Failed to get socket from environment: %s\n", strerror(errno != 0 ? errno : ENOENT));
        return 0;
    }
    // The socket stays open when the server ends: it is init's, and a module
    // loaded again serves it anew.
    fcntl(listener, F_SETFD, FD_CLOEXEC);
    if (listen(listener, 5) != 0) {
        ALOGE("Listen on socket failed: %s\n", strerror(errno));
        return 0;
    }
    // The stop's descriptor is always there when a worker runs the server
    // (its module makes sure); poll skips a -1.
    while (!stop_.Requested()) {
        struct pollfd fds[2] = {{listener, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        const int ready = TEMP_FAILURE_RETRY(poll(fds, 2, -1));
        if (ready < 0) {
            ALOGE("Accept failed: %s\n", strerror(errno));
            return 0;
        }
        if (fds[1].revents != 0) return 0;
        if ((fds[0].revents & (POLLERR | POLLNVAL)) != 0) {
            ALOGE("Accept failed: %s\n", strerror(EBADF));
            return 0;
        }
        base::unique_fd connection(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection.ok()) {
            const int error = errno;
            ALOGE("Accept failed: %s\n", strerror(error));
            if (error == EBADF || error == EINVAL || error == ENOTSOCK) return 0;
            continue;
        }
        Serve(connection.get());
    }
    return 0;
}

bool CaptureServerThread::ReadRequestBytes(int connection, char* out, size_t size) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(gIoTimeoutMs.load());
    size_t done = 0;
    while (done < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        struct pollfd fds[2] = {{connection, POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        const int ready = poll(fds, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return false;
        if (fds[1].revents != 0 || stop_.Requested()) {
            errno = ECANCELED;
            return false;
        }
        if (ready == 0) continue;  // the deadline is looked at again
        const ssize_t n = TEMP_FAILURE_RETRY(recv(connection, out + done, size - done, MSG_DONTWAIT));
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (n < 0) return false;
        if (n == 0) {
            errno = ECONNRESET;  // the client went away before its request was complete
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

CaptureServerThread::RequestStatus CaptureServerThread::ParseRequest(const unsigned char* data, size_t size,
                                                                     size_t* needed, std::string* request) {
    request->clear();
    *needed = kHeaderSize;
    if (size < kHeaderSize) return RequestStatus::kIncomplete;
    // Only the last byte counts: requests are short names.
    *needed = kHeaderSize + data[3];
    if (size < *needed) return RequestStatus::kIncomplete;
    request->assign(reinterpret_cast<const char*>(data) + kHeaderSize, *needed - kHeaderSize);
    return IsPlainRequest(*request) ? RequestStatus::kAccepted : RequestStatus::kRefused;
}

void CaptureServerThread::Serve(int connection) {
    unsigned char framed[kMaxRequestBytes];
    if (!ReadRequestBytes(connection, reinterpret_cast<char*>(framed), kHeaderSize)) {
        ALOGE("read header failed: %s\n", strerror(errno));
        ++tally_.dropped;
        return;
    }
    size_t needed = 0;
    std::string request;
    RequestStatus status = ParseRequest(framed, kHeaderSize, &needed, &request);
    ALOGD("content size :%d", static_cast<int>(needed - kHeaderSize));
    if (status == RequestStatus::kIncomplete) {
        if (!ReadRequestBytes(connection, reinterpret_cast<char*>(framed) + kHeaderSize, needed - kHeaderSize)) {
            ALOGE("read json failed: %s\n", strerror(errno));
            ++tally_.dropped;
            return;
        }
        status = ParseRequest(framed, needed, &needed, &request);
    }
    if (status != RequestStatus::kAccepted) {
        ALOGE("refusing dump request %s: not a plain name", StringUtil::ForLog(request).c_str());
        ++tally_.refused;
    } else {
        ALOGD("dorvad dump begin for dump request: %s\n", StringUtil::ForLog(request).c_str());
        struct ucred peer {};
        socklen_t length = sizeof(peer);
        const pid_t client = getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
        CaptureProgress progress(client);
        runCaptureLog(request.c_str());
        // Counted before the answer goes, so that whoever has the answer finds it in the dump.
        ++tally_.served;
    }
    // Never waits: a client that does not read its answer does not hold the server.
    const ssize_t n = TEMP_FAILURE_RETRY(send(connection, kResponse, strlen(kResponse), MSG_DONTWAIT | MSG_NOSIGNAL));
    if (n != static_cast<ssize_t>(strlen(kResponse))) {
        ALOGE("Write response failed: %s\n", n < 0 ? strerror(errno) : "short write");
    }
}

std::vector<DumpAction> CaptureServerThread::CaptureSteps() const {
    const bool qseelogd = base::GetProperty("init.svc.qseelogd", "").rfind("running", 0) == 0;
    const std::string qsee = paths::Get(qseelogd ? paths::kQseeLogCopy : paths::kQseeLogProc);
    const std::string tz = paths::Get(qseelogd ? paths::kTzLogCopy : paths::kTzLogProc);
    std::vector<DumpAction> steps = {
        {"UPTIME", {"uptime", "-p"}, 1},
        {"FILESYSTEMS & FREE SPACE", {"df"}, 1},
        {"FILESYSTEMS & FREE INODES", {"df", "-i"}, 1},
        {"MAIN,SYSTEM,EVENTS,CRASH LOGS", {"logcat", "-b", "main,system,events,crash", "-v", "uid", "-d", "*:v"}, 10},
        {"DROPBOX SYSTEM SERVER CRASHES", {"dumpsys", "dropbox", "-p", "system_server_crash"}, 1},
        {"DROPBOX SYSTEM SERVER WATCHDOG", {"dumpsys", "dropbox", "-p", "system_server_watchdog"}, 1},
        {"DROPBOX SYSTEM APP CRASHES", {"dumpsys", "dropbox", "-p", "system_app_crash"}, 1},
        {"SYSTEM PROPERTIES", {"getprop"}, 1},
        {"SECURITY QSEE LOG", {"cat", qsee}, 4},
        {"SECURITY TZ LOG", {"cat", tz}, 1},
        {"MTK SECURITY LOG", {"cat", paths::Get(zelteeCopyPath_)}, 1},
        {"SPRD SECURITY LOG", {"cat", paths::Get(paths::kTrustyLog)}, 1},
    };
    const std::string package = base::GetProperty("sys.rescue_party_failed_package", "");
    if (!package.empty()) steps.push_back({"DUMPSYS PACKAGE", {"dumpsys", "package", package}, 1});
    return steps;
}

void CaptureServerThread::runCaptureLog(const char* rawRequest) {
    const std::string request = rawRequest != nullptr ? rawRequest : "";
    if (!IsPlainRequest(request)) {
        ALOGE("refusing dump request %s: not a plain name", StringUtil::ForLog(request).c_str());
        return;
    }
    const std::string deviceBase = velmar::kolto::capture_layout::IsRebootRequest(request)
                                       ? velmar::kolto::capture_layout::CaptureServerDir(request, abUpdate_)
                                       : baseDir_;
    const std::string base = paths::Get(deviceBase);
    const std::string requestDir = base + "/" + request + "/";
    MakeCaptureDir(base);
    if (!MakeCaptureDir(requestDir)) return;
    const std::string name = request + "_" + NamePart("ro.product.device") + "_" +
                             NamePart("ro.build.version.incremental") + "_" + LocalTimeForName();
    const std::string path = requestDir + name;
    ALOGI("dorvad dump to: %s\n", StringUtil::ForLog(path).c_str());

    std::vector<DumpAction> steps = CaptureSteps();
    // cat runs as this process's user, which the secure-world logs may not
    // admit. A link in their place is left alone rather than followed.
    for (const size_t step : {8u, 9u, 10u}) {
        const std::string& file = steps[step].command[1];
        if (fchmodat(AT_FDCWD, file.c_str(), 0644, AT_SYMLINK_NOFOLLOW) != 0) {
            ALOGE("chmod failed: %s\n", strerror(errno));
        }
    }
    // The capture takes device paths, as the archive's placement checks them.
    const std::string deviceDir = deviceBase + "/" + request + "/";
    CaptureLogUtil::dump_for_actions(deviceDir.c_str(), (deviceDir + name).c_str(), steps);

    const std::string archive = path + ".zip";
    struct stat st {};
    bool keep = false;
    base::unique_fd zip(open(archive.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!zip.ok()) {
        ALOGW("Faile to open file: %s, %s", StringUtil::ForLog(archive).c_str(), strerror(errno));
    } else if (fstat(zip.get(), &st) != 0) {
        ALOGW("Faile to read file stat: %s, %s", StringUtil::ForLog(archive).c_str(), strerror(errno));
    } else if (st.st_size >= kMinArchiveBytes) {
        keep = true;
    } else {
        ALOGW("log too small, ready to delete.");
    }
    if (keep) {
        // Earlier captures of the kinds this server writes go; the new one
        // (its own name is in its path) and anything else stay.
        delete_dir_contents(requestDir.c_str(), false, [&archive](const char* name, bool) {
            const std::string entry = name;
            const bool ours = entry.rfind("RescuePartyLog", 0) == 0 || entry.rfind("BootFailure", 0) == 0 ||
                              velmar::kolto::capture_layout::IsRebootRequest(entry);
            return !ours || archive.find(entry) != std::string::npos;
        });
    } else if (remove(archive.c_str()) != 0) {
        ALOGE("remove path %s failed! info: %s\n", StringUtil::ForLog(archive).c_str(), strerror(errno));
    }
    ALOGD("dorvad dump end for dump request\n");
}

}  // namespace android
