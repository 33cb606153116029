#include "service/TarnisInternal.h"

#include "framework/InternalBroadcastManager.h"
#include "platform/Log.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

ndk::ScopedAStatus TarnisInternal::transferMessage(const std::string& action, const std::string& json) {
    LOG(INFO) << "SSI received message: action " << action << " json " << json;
    ::velmar::kolto::InternalBroadcastManager::onTarnisIntlMessageReceived(action, json);
    return ndk::ScopedAStatus::ok();
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
