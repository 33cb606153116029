#include "framework/TarnisMessage.h"

#include <new>

#include "framework/TarnisMessageManager.h"

namespace velmar {
namespace kolto {

TarnisMessage::~TarnisMessage() {
    delete obj;
    releaseRunnable();
}

TarnisRunnable* TarnisMessage::emplaceTask(std::function<void()> task) {
    releaseRunnable();
    runnable = ::new (static_cast<void*>(taskStorage_)) TarnisRunnable(std::move(task));
    return runnable;
}

void TarnisMessage::releaseRunnable() {
    TarnisRunnable* r = runnable;
    runnable = nullptr;
    if (r == reinterpret_cast<TarnisRunnable*>(taskStorage_)) {
        r->~TarnisRunnable();
    } else {
        delete r;
    }
}

TarnisMessage* TarnisMessage::obtain(int what, Object* obj, short flags) {
    return TarnisMessageManager::getInstance().obtain(what, obj, flags);
}

}  // namespace kolto
}  // namespace velmar
