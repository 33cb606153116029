#include "tests/support/TempDir.h"

#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tarnis_test {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/tarnis-test-XXXXXX";
    char* made = mkdtemp(&pattern[0]);
    if (made == nullptr) abort();
    path_ = made;
}

TempDir::~TempDir() {
    std::string command = "rm -rf '" + path_ + "'";
    if (system(command.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path_.c_str());
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
