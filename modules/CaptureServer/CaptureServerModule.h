#pragma once

#include "framework/ModuleBase.h"
#include "framework/ModuleWorker.h"
#include "modules/CaptureServer/CaptureServerThread.h"

namespace velmar {
namespace tarnis {

// Runs the capture server for as long as its socket works, then removes
// itself. The server's accept loop never returns on its own while the socket
// is fine, so it runs on the module's worker rather than on the module's
// handler thread: removing the module (which joins the handler thread first)
// would otherwise wait for ever. Destroying the module stops the worker, whose
// signal ends the server's every wait, and joins it.
class CaptureServerModule : public kolto::ModuleBase {
public:
    bool OnInit() override;
    void OnAllModulesLoaded() override;
    void dump(int fd, const char** args, unsigned int argc) override;

private:
    void Serve(kolto::StopSignal& stop);

    android::CaptureServerThread::Tally tally_;
    // Named after the socket it serves, as the thread always was. It posts
    // nothing to the handler thread (removal goes through the manager), so
    // it needs no looper and is there for a dump from the start. Last:
    // destroyed, and so joined, before what its thread touches.
    kolto::ModuleWorker worker_{"dorvad", nullptr};
};

}  // namespace tarnis
}  // namespace velmar
