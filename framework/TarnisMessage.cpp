#include "framework/TarnisMessage.h"

#include "framework/TarnisMessageManager.h"

namespace velmar {
namespace kolto {

TarnisMessage::~TarnisMessage() {
    delete obj;
    delete runnable;
}

TarnisMessage* TarnisMessage::obtain(int what, Object* obj, short flags) {
    return TarnisMessageManager::getInstance().obtain(what, obj, flags);
}

}  // namespace kolto
}  // namespace velmar
