#pragma once

#include <functional>
#include <string>

#include <android-base/unique_fd.h>
#include <utils/String16.h>

namespace android {

// Packs a capture text file and the files it refers to into a zip archive,
// on a worker thread under a time-out, then tidies up: the ".mtk" rename,
// native-crash files that were packed, and the offline-database and
// local-record copies. Paths handed in are device paths.
class CapturePackager {
public:
    // 0 when the worker finished within the time-out, -1 when it did not
    // (it then finishes the archive on its own). Attachments are packed only
    // from below the data partition, through no link. `afterPack`, when
    // given, runs on the worker once the archive is finished or given up,
    // told whether it is complete: in time or late, the caller's text can
    // go only then.
    static int Compress(const char* path, const char* where, std::vector<String16>* files, int timeoutSeconds,
                        bool isRecordInLocal, std::function<void(bool complete)> afterPack = nullptr);
    // The archive Compress will make of the capture `path` (file-system
    // paths, `where` as Compress takes it), before the ".mtk" rename.
    static std::string ArchiveFor(const std::string& path, const char* where);
    // Starts the worker on `zipPath` and waits for it up to the time-out.
    // Paths are file-system paths. With `zipDirFd`, the archive is made in
    // that open directory under `zipPath`'s last name, never by its path.
    static int CompressWithTimeout(const std::string& zipPath, const std::string& path, std::vector<String16>* files,
                                   int timeoutSeconds, std::function<void(bool complete)> afterPack = nullptr,
                                   int zipDirFd = -1);
    // True when the client's attachment `raw` lies below the data partition
    // with no link on its way (or is missing); `file` gets it with "." and
    // ".." taken by name, `fd` (when given) what was opened. Else false with
    // the sentence that says why.
    static bool CheckAttachment(const std::string& raw, std::string* file, base::unique_fd* fd, std::string* why);
    // Opens an attachment up for reading (mode 0777): a file, or the files of
    // a directory tree, at most 16 counted through `count`. Links are
    // counted, never followed.
    static void IncludeZipFiles(const char* path, int* count);
    // The same for the open file or directory `fd` at `path`.
    static void OpenUp(int fd, const std::string& path, int* count);

    // `onCompress` sees the time-out of each packing before it starts;
    // `beforePack` runs on the worker before it packs (to make it slow).
    static void SetHooksForTesting(std::function<void(int timeoutSeconds)> onCompress,
                                   std::function<void()> beforePack);
};

}  // namespace android
