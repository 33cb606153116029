#include "platform/binder/BBinder.h"

#include <utility>
#include <vector>

#include "platform/binder/ICInterface.h"
#include "platform/binder/Parcel.h"
#include "platform/Unicode.h"

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
// strings, as the platform's dump transaction does.
status_t BBinder::handleDump(const Parcel& data) {
    base::unique_fd fd;
    std::vector<std::u16string> args16;
    status_t st = data.readUniqueFileDescriptor(&fd);
    if (st == OK) st = data.readString16Vector(&args16);
    if (st != OK) return st;
    if (!fd.ok()) return BAD_VALUE;
    std::vector<std::string> args;
    args.reserve(args16.size());
    for (const auto& a : args16) args.push_back(platform::Utf16ToUtf8(a));
    std::vector<const char*> argv;
    argv.reserve(args.size());
    for (const auto& a : args) argv.push_back(a.c_str());
    return impl_->dump(fd.get(), argv.data(), static_cast<uint32_t>(argv.size()));
}

}  // namespace android
