#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>
#include <android/binder_manager.h>

#include "tools/tarnisctl/CtlCommand.h"
#include "tools/tarnisctl/ServiceConnect.h"

namespace tarnisctl {
namespace {

using aidl::velmar::system::tarnis::common::ITarnisSsi;

int Dump(const std::vector<std::string>& args) {
    ndk::SpAIBinder binder;
    if (!Connect<ITarnisSsi>(&binder)) return 1;
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    fflush(stdout);
    binder_status_t status =
        AIBinder_dump(binder.get(), STDOUT_FILENO, argv.data(), static_cast<uint32_t>(argv.size()));
    if (status == STATUS_PERMISSION_DENIED && platform::host::LastBinderError().empty()) {
        // The dump command has no reply to carry a sentence: the caller's uid is ours.
        fprintf(stderr, "permission denied: uid %u may not call dump\n", static_cast<unsigned>(getuid()));
        return 1;
    }
    if (status != STATUS_OK) {
        fprintf(stderr, "dump: %s\n", Explain(status).c_str());
        return 1;
    }
    return 0;
}

CtlCommandRegister gDump({"dump", "[ARGS...]",
                          "print the daemon's dump (module framework commands: ModuleManager dump|load NAME)", Dump});

}  // namespace
}  // namespace tarnisctl
