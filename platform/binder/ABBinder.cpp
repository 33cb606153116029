#include "platform/binder/ABBinder.h"

#include <utility>
#include <vector>

#include <host/Utf8.h>

#include "platform/binder/ICInterface.h"

namespace android {

ABBinder::ABBinder(std::shared_ptr<ndk::ICInterface> impl, const std::string& descriptor)
    : impl_(std::move(impl)), descriptor_(platform::ToUtf16(descriptor)) {}

status_t ABBinder::dump(int fd, const Vector<String16>& args) {
    std::vector<std::string> utf8;
    utf8.reserve(args.size());
    for (size_t i = 0; i < args.size(); ++i) utf8.push_back(platform::ToUtf8(args[i]));
    std::vector<const char*> argv;
    argv.reserve(utf8.size());
    for (const auto& arg : utf8) argv.push_back(arg.c_str());
    return impl_->dump(fd, argv.data(), static_cast<uint32_t>(argv.size()));
}

status_t ABBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
    return impl_->onTransact(code, data, reply);
}

std::string ABBinder::transactionName(uint32_t code) const { return impl_->getTransactionName(code); }

}  // namespace android
