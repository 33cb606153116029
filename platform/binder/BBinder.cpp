#include "platform/binder/BBinder.h"

#include <utility>

#include <android-base/logging.h>
#include <utils/String8.h>

#include <host/LogRateLimiter.h>
#include "platform/binder/AidlMethods.h"
#include "platform/binder/BinderProcess.h"
#include "platform/binder/CallerPolicy.h"
#include "platform/binder/DumpRelay.h"
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/Status.h"

namespace android {

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const none = new String16();
    return *none;
}

status_t BBinder::dump(int, const Vector<String16>&) { return OK; }

status_t BBinder::onTransact(uint32_t, const Parcel&, Parcel*, uint32_t) { return UNKNOWN_TRANSACTION; }

std::string BBinder::transactionName(uint32_t code) const {
    return AidlMethodName(String8(getInterfaceDescriptor()).string(), code);
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    // An in-process caller hands over the parcel it has just written.
    data.setDataPosition(0);
    if (code == INTERFACE_TRANSACTION) {
        const status_t st = reply->writeString16(getInterfaceDescriptor());
        reply->setDataPosition(0);
        return st;
    }
    if (code != DUMP_TRANSACTION && (code < FIRST_CALL_TRANSACTION || code > LAST_CALL_TRANSACTION)) {
        return UNKNOWN_TRANSACTION;
    }
    // The one place every call of every service passes, before any of its
    // arguments is read.
    const std::string descriptor = String8(getInterfaceDescriptor()).string();
    std::string method = code == DUMP_TRANSACTION ? "dump" : transactionName(code);
    if (method.empty()) method = "code " + std::to_string(code);
    const uid_t uid = IPCThreadState::self()->getCallingUid();
    status_t st;
    if (!CallerPolicy::instance().allows(descriptor, method, uid)) {
        // Any process may knock as often as it likes: the lines are rationed.
        static platform::LogRateLimiter refusals(20, 60000);
        uint64_t suppressed = 0;
        if (refusals.Allow(&suppressed)) {
            LOG(WARNING) << "binder: permission denied: uid " << uid << " (pid "
                         << IPCThreadState::self()->getCallingPid() << ") may not call " << descriptor << "."
                         << method << platform::LogRateLimiter::Summary(suppressed);
        }
        const std::string message = "permission denied: uid " + std::to_string(uid) + " may not call " + method;
        st = code == DUMP_TRANSACTION ? PERMISSION_DENIED
                                      : binder::Status::fromExceptionCode(binder::Status::EX_SECURITY,
                                                                          String8(message.c_str()))
                                            .writeToParcel(reply);
    } else {
        st = code == DUMP_TRANSACTION ? handleDump(data) : onTransact(code, data, reply, flags);
    }
    if (reply != nullptr) reply->setDataPosition(0);
    return st;
}

// The dump command carries the output descriptor and the arguments as UTF-16
// strings, as the platform's dump transaction does. The caller's descriptor
// is never written directly: a caller that stops reading must not hold a
// binder thread for longer than dumpsys would wait.
status_t BBinder::handleDump(const Parcel& data) {
    base::unique_fd fd;
    std::vector<String16> list;
    status_t st = data.readUniqueFileDescriptor(&fd);
    if (st == OK) st = data.readString16Vector(&list);
    if (st != OK) return st;
    if (!fd.ok()) return BAD_VALUE;
    Vector<String16> args;
    for (const String16& arg : list) args.push(arg);
    IPCThreadState* caller = IPCThreadState::self();
    const std::string who = String8(getInterfaceDescriptor()).string() + std::string(" for pid ") +
                            std::to_string(caller->getCallingPid()) + " uid " +
                            std::to_string(caller->getCallingUid());
    return DumpRelay::Run(fd.get(), BinderProcess::DumpTimeoutMs(), who, [&](int out) { return dump(out, args); });
}

}  // namespace android
