#include "tests/support/TempDir.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tarnis_test {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tarnis-test-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) abort();
    path_ = pattern;
}

TempDir::~TempDir() {
    if (system(("rm -rf '" + path_ + "'").c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path_.c_str());
}

bool WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListDir(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string RunShell(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        if (status != nullptr) *status = -1;
        return output;
    }
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) output.append(buffer, n);
    int rc = pclose(pipe);
    if (status != nullptr) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return output;
}

}  // namespace tarnis_test
