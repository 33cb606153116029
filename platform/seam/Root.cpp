#include <atomic>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <host/Host.h>

namespace platform {
namespace {

// Readers run on many threads and must never see a string being replaced, so
// each root stays alive for the life of the process once published.
std::atomic<const std::string*> gRoot{nullptr};

std::mutex& RootsLock() {
    static std::mutex* lock = new std::mutex;
    return *lock;
}

std::vector<const std::string*>& RootsKept() {
    static auto* kept = new std::vector<const std::string*>;
    return *kept;
}

const std::string* Publish(const std::string& root) {
    std::string clean = root;
    while (clean.size() > 1 && clean.back() == '/') clean.pop_back();
    if (clean.empty()) clean = "/";
    std::lock_guard<std::mutex> guard(RootsLock());
    for (const std::string* kept : RootsKept()) {
        if (*kept == clean) return kept;
    }
    auto* stored = new std::string(clean);
    RootsKept().push_back(stored);
    return stored;
}

const std::string& Current() {
    const std::string* root = gRoot.load(std::memory_order_acquire);
    if (root == nullptr) {
        const char* env = getenv("TARNIS_ROOT");
        const std::string* fresh = Publish(env != nullptr ? env : "/");
        const std::string* expected = nullptr;
        if (!gRoot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) {
            return *expected;
        }
        return *fresh;
    }
    return *root;
}

}  // namespace

void SetRoot(const std::string& root) {
    gRoot.store(Publish(root), std::memory_order_release);
}

std::string GetRoot() { return Current(); }

std::string DevicePath(const std::string& absolutePath) {
    const std::string& root = Current();
    if (root == "/" || absolutePath.empty() || absolutePath[0] != '/') return absolutePath;
    if (absolutePath.compare(0, root.size(), root) == 0 &&
        (absolutePath.size() == root.size() || absolutePath[root.size()] == '/')) {
        return absolutePath;
    }
    return root + absolutePath;
}

}  // namespace platform
