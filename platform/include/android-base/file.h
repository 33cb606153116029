#pragma once

#include <sys/types.h>

#include <string>

// Whole-file and whole-buffer I/O in libbase's shape. Reads and writes retry
// on EINTR and short counts; paths are not followed through a final symbolic
// link unless asked, so a link planted where the daemon reads or writes never
// leads it out of its tree.
namespace android {
namespace base {

bool ReadFdToString(int fd, std::string* content);
bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks = false);

bool WriteStringToFd(const std::string& content, int fd);
bool WriteStringToFile(const std::string& content, const std::string& path, bool follow_symlinks = false);
// Creates or truncates the file with `mode`, owner and group.
bool WriteStringToFile(const std::string& content, const std::string& path, mode_t mode, uid_t owner,
                       gid_t group, bool follow_symlinks = false);

bool ReadFully(int fd, void* data, size_t byte_count);
bool WriteFully(int fd, const void* data, size_t byte_count);

// The directory part of a path, as dirname(1) prints it.
std::string Dirname(const std::string& path);
// The last component of a path, as basename(1) prints it.
std::string Basename(const std::string& path);

}  // namespace base
}  // namespace android
