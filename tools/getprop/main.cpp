// getprop for the sandbox: what captures run as "getprop" on the host. It
// reads the property store of $TARNIS_ROOT (or --root DIR), printing like the
// device's tool: every property as "[name]: [value]", or one value.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <android-base/properties.h>
#include <host/Host.h>

namespace {

void Usage(FILE* out) {
    fprintf(out,
            "usage: getprop [--root DIR] [NAME [DEFAULT]]\n"
            "Prints every property as [NAME]: [VALUE], or the value of NAME (DEFAULT when unset).\n"
            "The store is that of DIR, else of $TARNIS_ROOT, else of /.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--root" && i + 1 < argc) {
            platform::SetRoot(argv[++i]);
        } else if (arg.compare(0, 7, "--root=") == 0) {
            platform::SetRoot(arg.substr(7));
        } else if (!arg.empty() && arg[0] == '-') {
            fprintf(stderr, "getprop: unknown option '%s'\n", arg.c_str());
            Usage(stderr);
            return 2;
        } else {
            names.push_back(arg);
        }
    }
    if (names.size() > 2) {
        Usage(stderr);
        return 2;
    }
    if (names.empty()) {
        for (const auto& [name, value] : platform::ListProperties()) {
            printf("[%s]: [%s]\n", name.c_str(), value.c_str());
        }
        return 0;
    }
    printf("%s\n", android::base::GetProperty(names[0], names.size() > 1 ? names[1] : "").c_str());
    return 0;
}
