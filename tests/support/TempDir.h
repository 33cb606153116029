#pragma once

#include <string>
#include <vector>

namespace tarnis_test {

// A fresh directory below $TMPDIR (or /tmp), removed with everything in it when the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string Sub(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

bool WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
// Whether anything, a dangling link included, is at `path`.
bool Exists(const std::string& path);
// The names in `dir` (none when it cannot be read), sorted.
std::vector<std::string> ListDir(const std::string& dir);
// Runs a shell command line and returns its standard output; `status` gets the exit status when not null.
std::string RunShell(const std::string& command, int* status = nullptr);

}  // namespace tarnis_test
