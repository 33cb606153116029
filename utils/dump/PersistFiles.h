#pragma once

#include <sys/types.h>

#include <string>

#include <android-base/unique_fd.h>

// The small files that privileged clients keep on the persist partition.
// Paths are the caller's device paths and are only ever reached below the
// stability directory, through no link; the listing returns device paths.
namespace android {

class PersistFiles {
public:
    // Appends the stability directory's entries to `out`, comma-separated;
    // creates the directory (leaving `out` as it is) when it is missing.
    static void List(std::string& out);
    // True when `path` lies below the stability directory with no link on
    // its way; else false with the sentence that says why.
    static bool Check(const std::string& path, std::string* why);
    // Appends the file's text to `out`.
    static void Read(const std::string& path, std::string& out);
    // 0 when `path` exists afterwards, -1 otherwise.
    static int Create(const std::string& path);
    // Overwrites the file from its start (no truncation); the number of bytes
    // written, or -1 when the file could not be opened.
    static ssize_t Write(const std::string& path, const std::string& content);
    // As Write, for a path of the daemon's own anywhere (the boot count):
    // only a link at the name is refused.
    static ssize_t WriteOwn(const std::string& path, const std::string& content);

    // More than a binder reply should carry: a longer file is cut here, with
    // a log line, so that a caller naming a huge file cannot exhaust memory.
    static constexpr size_t kMaxReadBytes = 1024 * 1024;

private:
    static ssize_t WriteTo(base::unique_fd fd, const std::string& path, const std::string& content);
};

}  // namespace android
