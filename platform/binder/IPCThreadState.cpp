#include "platform/binder/IPCThreadState.h"

#include <unistd.h>

namespace android {
namespace {

struct Identity {
    bool set = false;
    uid_t uid = 0;
    pid_t pid = 0;
};

thread_local Identity tIdentity;

}  // namespace

IPCThreadState* IPCThreadState::self() {
    static IPCThreadState state;  // stateless: the identity itself is per thread
    return &state;
}

uid_t IPCThreadState::getCallingUid() const { return tIdentity.set ? tIdentity.uid : getuid(); }

pid_t IPCThreadState::getCallingPid() const { return tIdentity.set ? tIdentity.pid : getpid(); }

IPCThreadState::ScopedIdentity::ScopedIdentity(uid_t uid, pid_t pid)
    : hadPrevious_(tIdentity.set), uid_(tIdentity.uid), pid_(tIdentity.pid) {
    tIdentity.set = true;
    tIdentity.uid = uid;
    tIdentity.pid = pid;
}

IPCThreadState::ScopedIdentity::~ScopedIdentity() {
    tIdentity.set = hadPrevious_;
    tIdentity.uid = uid_;
    tIdentity.pid = pid_;
}

}  // namespace android
