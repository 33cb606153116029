#pragma once

#include <string>

#include <android-base/unique_fd.h>

namespace android {

// The text file of a capture: which directory it goes in, its name, and the
// header lines it starts with. Failures are logged here; callers only stop.
class CaptureFile {
public:
    // The headline as it goes into headers and file names: "null" when
    // empty, every character unsafe in a file name or a shell replaced by "X".
    static std::string SanitizeHeadline(const std::string& headline);

    // True when `type` can be a directory of its own below the capture base:
    // not empty, not "." or "..", no "/".
    static bool IsPlainName(const std::string& type);
    // The client's `where` with "." and ".." resolved, when it names an
    // existing directory on the data, rescue or cache partition reached
    // through no link; "" otherwise. A final "/" is kept.
    static std::string ResolveWhere(const std::string& where);
    // `where` opened as a directory below the partition it names (in `top`),
    // through no link; not open when it is not one.
    static base::unique_fd OpenWhere(const std::string& where, std::string* top);

    // Makes the directory that a dump_all capture of `type` goes in, stores
    // its file-system path in `logDir` and opens it in `dirFd`: the type's
    // "online" or "offline" directory below the caller's `where`
    // (rescue-party and boot-failure captures) or below the capture base, or
    // the local-record directory itself for local records of release builds.
    // False when the path would be too long, a directory cannot be made, or
    // a link or a non-directory is in the place of one.
    static bool MakeLogDir(const std::string& type, const std::string& where, bool offline, int id,
                           bool isRecordInLocal, std::string* logDir, base::unique_fd* dirFd);

    // Creates the capture file in the open directory `dirFd` (`logDir`),
    // owned by the system user with mode 0666 and open for appending in
    // `fd`, and returns its path ("" on failure). Offline captures rotate
    // through five slots; online ones get a name of their own. The file is
    // always new: a stale text in the way (see kStaleTextSeconds) is removed.
    static std::string Create(int dirFd, const std::string& logDir, const std::string& type,
                              const std::string& headline, bool offline, int id, bool useId, base::unique_fd* fd);
    // True while `logDir` still names the directory open in `dirFd`.
    static bool StillInPlace(int dirFd, const std::string& logDir);

    // Appends dump_all's header to the open capture file. False when it
    // cannot be written.
    static bool WriteHeader(int fd, const std::string& path, const std::string& headline);
    // Appends `text` to the open capture file.
    static void Append(int fd, const std::string& path, const std::string& text);
    // Appends dump_for_actions's dated header.
    static void WriteDateHeader(const std::string& path);

    // Removes the unfinished archives that killed captures left in the
    // capture directories; run once as the daemon starts.
    static void RemoveLeftovers();

    // A capture text this old is no capture's any more: the longest packing
    // (ten minutes, four more per core dump) is long over.
    static constexpr long kStaleTextSeconds = 3600;

private:
    static int ChooseOfflineSlot(int dirFd, const std::string& type, const std::string& headline);
};

}  // namespace android
