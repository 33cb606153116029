#pragma once

#include <string>

namespace android {

// The text file of a capture: which directory it goes in, its name, and the
// header lines it starts with. Failures are logged here; callers only stop.
class CaptureFile {
public:
    // The headline as it goes into headers and file names: "null" when
    // empty, every character unsafe in a file name or a shell replaced by "X".
    static std::string SanitizeHeadline(const std::string& headline);

    // Makes the directory that a dump_all capture of `type` goes in and
    // stores its file-system path in `logDir`: the type's "online" or
    // "offline" directory below the caller's `where` (rescue-party and
    // boot-failure captures) or below the capture base, or the local-record
    // directory itself for local records of release builds. False when the
    // path would be too long or a directory cannot be made.
    static bool MakeLogDir(const std::string& type, const std::string& where, bool offline, int id,
                           bool isRecordInLocal, std::string* logDir);

    // Creates the capture file in `logDir`, owned by the system user with
    // mode 0666, and returns its path ("" on failure). Offline captures
    // rotate through five slots; online ones get a name of their own.
    static std::string Create(const std::string& logDir, const std::string& type, const std::string& headline,
                              bool offline, int id, bool useId);

    // Appends dump_all's header. False when the file cannot be opened.
    static bool WriteHeader(const std::string& path, const std::string& headline);
    // Appends dump_for_actions's dated header.
    static void WriteDateHeader(const std::string& path);
    // Appends `text`.
    static void Append(const std::string& path, const std::string& text);

private:
    static int ChooseOfflineSlot(const std::string& logDir, const std::string& type);
};

}  // namespace android
