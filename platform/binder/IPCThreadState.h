#pragma once

#include <sys/types.h>

// Who is calling: while a binder thread serves a transaction, the peer's
// credentials (taken from SO_PEERCRED when the connection was accepted).
// Outside a transaction, and for in-process calls on a local object, the
// caller is this process itself, as with the platform's binder.
namespace android {

class IPCThreadState {
public:
    static IPCThreadState* self();
    uid_t getCallingUid() const;
    pid_t getCallingPid() const;

    // Sets the calling identity of this thread for its lifetime, restoring
    // the previous one after (a transaction's scope on a binder thread).
    class ScopedIdentity {
    public:
        ScopedIdentity(uid_t uid, pid_t pid);
        ~ScopedIdentity();
        ScopedIdentity(const ScopedIdentity&) = delete;
        ScopedIdentity& operator=(const ScopedIdentity&) = delete;

    private:
        bool hadPrevious_;
        uid_t uid_;
        pid_t pid_;
    };
};

}  // namespace android
