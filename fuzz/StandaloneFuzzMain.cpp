// Runs a fuzz target over the files (or the files of the directories) named
// on the command line, so that compilers without libFuzzer still build the
// targets and the test suite replays their corpus on every run.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void Collect(const std::string& path, std::vector<std::string>* files) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        files->push_back(path);
        return;
    }
    if (DIR* dir = opendir(path.c_str())) {
        while (struct dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") Collect(path + "/" + name, files);
        }
        closedir(dir);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) Collect(argv[i], &files);
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        const std::string input = bytes.str();
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    }
    printf("%zu inputs run\n", files.size());
    return files.empty() ? 1 : 0;
}
