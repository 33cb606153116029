#define LOG_TAG "Tarnis-onReceive"

#include "modules/LogManager/LogMgrBroadcastReceiver.h"

#include <log/log.h>

#include "modules/LogManager/LogManager.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {

void LogMgrBroadcastReceiver::onReceive(Intent intent) const {
    ALOGI("[%s] action %s", "onReceive", StringUtil::ForLog(intent.action).c_str());
    manager_->OnBroadcast(std::move(intent));
}

}  // namespace kolto
}  // namespace velmar
