#include <host/Host.h>

#include "platform/binder/BpBinder.h"
#include "platform/binder/ServiceManager.h"

namespace platform {
namespace host {

void WithdrawServices() { android::ServiceManager::instance().removeAllServices(); }

void SetBinderCallTimeoutMs(int timeoutMs) { android::BpBinder::SetCallTimeoutMs(timeoutMs); }

const std::string& LastBinderError() { return android::BpBinder::LastError(); }

}  // namespace host
}  // namespace platform
