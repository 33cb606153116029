#include "platform/binder/BBinder.h"

#include <utility>
#include <vector>

#include <utils/Unicode.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/DumpRelay.h"
#include "platform/binder/ICInterface.h"
#include "platform/binder/IPCThreadState.h"
#include "platform/binder/Parcel.h"

namespace android {

BBinder::BBinder(std::shared_ptr<ndk::ICInterface> impl, std::string descriptor)
    : impl_(std::move(impl)), descriptor_(std::move(descriptor)) {}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            return reply->writeString(descriptor_);
        case DUMP_TRANSACTION:
            return handleDump(data);
        default:
            if (code < FIRST_CALL_TRANSACTION || code > LAST_CALL_TRANSACTION) return UNKNOWN_TRANSACTION;
            return impl_->onTransact(code, data, reply);
    }
}

// The dump command carries the output descriptor and the arguments as UTF-16
// strings, as the platform's dump transaction does. The caller's descriptor
// is never written directly: a caller that stops reading must not hold a
// binder thread for longer than dumpsys would wait.
status_t BBinder::handleDump(const Parcel& data) {
    base::unique_fd fd;
    std::vector<std::u16string> args16;
    status_t st = data.readUniqueFileDescriptor(&fd);
    if (st == OK) st = data.readString16Vector(&args16);
    if (st != OK) return st;
    if (!fd.ok()) return BAD_VALUE;
    std::vector<std::string> args;
    args.reserve(args16.size());
    for (const auto& a : args16) args.push_back(android::Utf16ToUtf8(a));
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
