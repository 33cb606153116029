#pragma once

#include <time.h>

#include <string>
#include <vector>

// Where captures are placed, as device paths: the daemon places them by these
// rules and the tools find them by the same ones.
namespace velmar {
namespace kolto {
namespace capture_layout {

// A headline as it appears in a capture's names: the characters a file name
// or a shell cannot take become 'X', and an empty one is "null".
std::string SanitizeHeadline(const std::string& headline);

// The directory a capture goes below: the client's `where` for the records of
// the platform's rescue tools; the local record directory for a local record
// without an id on a release build that is not under test; else the capture
// base.
std::string CaptureBase(const std::string& type, const std::string& where, int id, bool recordInLocal);

// The directory a capture's text and archive land in: the local record
// directory itself, else <base>/<type>/online or offline.
std::string CaptureDir(const std::string& base, const std::string& type, bool offline);

// What every archive name of a capture of `type` and (sanitized) `headline`
// holds: online names put an id first, offline ones a slot number last.
std::string ArchiveMark(const std::string& type, const std::string& headline);

// Requests of the capture server that are records of a failed boot.
bool IsRebootRequest(const std::string& name);
// The directory the capture server puts the archive of request `name` in.
std::string CaptureServerDir(const std::string& name, bool abUpdate);

// The newest regular file (not a link) among `dirs` (file-system paths) whose
// name holds `mark` (at its start when `atStart`), ends in ".zip" or
// ".zip.mtk" and was modified at or after `since`; ties go to the later
// name. Empty when there is none.
std::string FindNewestArchive(const std::vector<std::string>& dirs, const std::string& mark, bool atStart,
                              const struct timespec& since);

// What a running capture publishes for the client that ordered it: the
// archive it goes to, once known (a device path), and its sections done of
// the total. Replaced whole at each change, never written in place.
struct Progress {
    std::string archive;
    size_t done = 0;
    size_t total = 0;
};
// The file of the capture that the process `client` ordered (a device path).
std::string ProgressFile(int client);
std::string FormatProgress(const Progress& progress);
// False for a text that is not a progress file.
bool ParseProgress(const std::string& text, Progress* progress);

}  // namespace capture_layout
}  // namespace kolto
}  // namespace velmar
