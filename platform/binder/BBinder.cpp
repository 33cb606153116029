#include "platform/binder/BBinder.h"

#include <utility>
#include <vector>

#include <host/Utf8.h>

#include <android-base/logging.h>

#include <host/LogRateLimiter.h>
#include "platform/binder/BinderProcess.h"
#include "platform/binder/CallerPolicy.h"
#include "platform/binder/DumpRelay.h"
#include "platform/binder/ICInterface.h"
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"

namespace android {

BBinder::BBinder(std::shared_ptr<ndk::ICInterface> impl, std::string descriptor)
    : impl_(std::move(impl)), descriptor_(std::move(descriptor)) {}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply) {
    if (code == INTERFACE_TRANSACTION) return reply->writeString(descriptor_);
    if (code != DUMP_TRANSACTION && (code < FIRST_CALL_TRANSACTION || code > LAST_CALL_TRANSACTION)) {
        return UNKNOWN_TRANSACTION;
    }
    // The one place every call of every service passes, before any of its
    // arguments is read.
    std::string method = code == DUMP_TRANSACTION ? "dump" : impl_->getTransactionName(code);
    if (method.empty()) method = "code " + std::to_string(code);
    const uid_t uid = IPCThreadState::self()->getCallingUid();
    if (!CallerPolicy::instance().allows(descriptor_, method, uid)) {
        // Any process may knock as often as it likes: the lines are rationed.
        static platform::LogRateLimiter refusals(20, 60000);
        uint64_t suppressed = 0;
        if (refusals.Allow(&suppressed)) {
            LOG(WARNING) << "binder: permission denied: uid " << uid << " (pid "
                         << IPCThreadState::self()->getCallingPid() << ") may not call " << descriptor_ << "."
                         << method << platform::LogRateLimiter::Summary(suppressed);
        }
        if (code == DUMP_TRANSACTION) return PERMISSION_DENIED;
        return reply->writeStatus(ndk::ScopedAStatus::fromExceptionCodeWithMessage(
            EX_SECURITY, "permission denied: uid " + std::to_string(uid) + " may not call " + method));
    }
    if (code == DUMP_TRANSACTION) return handleDump(data);
    return impl_->onTransact(code, data, reply);
}

// The dump command carries the output descriptor and the arguments as UTF-16
// strings, as the platform's dump transaction does. The caller's descriptor
// is never written directly: a caller that stops reading must not hold a
// binder thread for longer than dumpsys would wait.
status_t BBinder::handleDump(const Parcel& data) {
    base::unique_fd fd;
    std::vector<android::String16> args16;
    status_t st = data.readUniqueFileDescriptor(&fd);
    if (st == OK) st = data.readString16Vector(&args16);
    if (st != OK) return st;
    if (!fd.ok()) return BAD_VALUE;
    std::vector<std::string> args;
    args.reserve(args16.size());
    for (const auto& a : args16) args.push_back(platform::ToUtf8(a));
    std::vector<const char*> argv;
    argv.reserve(args.size());
    for (const auto& a : args) argv.push_back(a.c_str());
    IPCThreadState* caller = IPCThreadState::self();
    const std::string who = descriptor_ + " for pid " + std::to_string(caller->getCallingPid()) + " uid " +
                            std::to_string(caller->getCallingUid());
    return DumpRelay::Run(fd.get(), BinderProcess::DumpTimeoutMs(), who, [&](int out) {
        return impl_->dump(out, argv.data(), static_cast<uint32_t>(argv.size()));
    });
}

}  // namespace android
