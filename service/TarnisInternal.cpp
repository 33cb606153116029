#include "service/TarnisInternal.h"

#include <android-base/logging.h>

#include "framework/InternalBroadcastManager.h"
#include "utils/StringUtil.h"

namespace aidl {
namespace velmar {
namespace system {
namespace tarnis {
namespace common {

ndk::ScopedAStatus TarnisInternal::transferMessage(const std::string& action, const std::string& json) {
    // Both come straight from the peer: printable and bounded before they
    // reach the log.
    LOG(INFO) << "SSI received message: action " << ::velmar::kolto::StringUtil::ForLog(action) << " json "
              << ::velmar::kolto::StringUtil::ForLog(json);
    ::velmar::kolto::InternalBroadcastManager::onTarnisIntlMessageReceived(action, json);
    return ndk::ScopedAStatus::ok();
}

}  // namespace common
}  // namespace tarnis
}  // namespace system
}  // namespace velmar
}  // namespace aidl
