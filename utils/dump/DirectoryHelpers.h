#pragma once

#include <sys/types.h>

#include <functional>

// The directory helpers that the capture code shares with the rest of the
// daemon. Paths are used as given: callers map device paths.
namespace android {

// The system user and group (AID_SYSTEM): capture files and directories
// belong to them.
inline constexpr uid_t kSystemUid = 1000;

// 0 when `path` is a directory with `mode` afterwards (made, or its mode
// corrected); -1 when it is something else or cannot be made.
int create_dir_if_needed(const char* path, unsigned mode);
// Removes what the directory holds, depth first, skipping every entry that
// `exclude` accepts, and the directory itself when `deleteSelf` is set.
// Links are removed, never followed. 0 when everything went.
int delete_dir_contents(const char* path, bool deleteSelf,
                        std::function<bool(const char* name, bool isDir)> exclude);
// Copies a file's contents to `to` (created with mode 0664). 0 on success.
int copy_file(const char* from, const char* to);

}  // namespace android
