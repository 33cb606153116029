#pragma once

#include <atomic>
#include <thread>

#include <android-base/unique_fd.h>

#include "framework/ModuleBase.h"

namespace velmar {
namespace tarnis {

// Runs the capture server for as long as its socket works, then removes
// itself. The server's accept loop never returns on its own while the socket
// is fine, so it runs on a thread the module owns rather than on the
// module's handler thread: removing the module (which joins the handler
// thread first) would otherwise wait for ever. Destroying the module wakes
// the loop through an eventfd and joins it.
class CaptureServerModule : public kolto::ModuleBase {
public:
    ~CaptureServerModule() override;
    bool OnInit() override;
    void OnAllModulesLoaded() override;

private:
    void Serve();

    android::base::unique_fd stopFd_;
    std::atomic<bool> stopping_{false};
    std::thread server_;
};

}  // namespace tarnis
}  // namespace velmar
