#include "utils/CallerBudget.h"

#include <unistd.h>

#include "utils/Clock.h"

namespace velmar {
namespace kolto {
namespace {

constexpr uid_t kRootUid = 0;
constexpr uid_t kSystemUid = 1000;

}  // namespace

bool CallerBudget::IsPrivileged(uid_t uid) { return uid == kRootUid || uid == kSystemUid || uid == getuid(); }

bool CallerBudget::Allow(uid_t uid) {
    if (IsPrivileged(uid)) return true;
    const int64_t now = GetClock().SteadyNowMs();
    std::lock_guard<std::mutex> guard(lock_);
    if (ran_ && now - lastMs_ < intervalMs_) return false;
    ran_ = true;
    lastMs_ = now;
    return true;
}

}  // namespace kolto
}  // namespace velmar
