#pragma once

#include <string>
#include <vector>

namespace velmar {
namespace kolto {

// The actions a receiver wants, and whether it only takes broadcasts sent
// through the internal manager.
class IntentFilter {
public:
    IntentFilter() = default;
    explicit IntentFilter(std::vector<std::string> actions, bool internal = false)
        : actions(std::move(actions)), internal(internal) {}
    virtual ~IntentFilter() = default;

    void addAction(const std::string& action) { actions.push_back(action); }
    // True when one of the actions equals `action` exactly.
    bool matchAction(const std::string& action) const {
        for (const std::string& mine : actions) {
            if (mine == action) return true;
        }
        return false;
    }

    std::vector<std::string> actions;
    bool internal = false;
};

}  // namespace kolto
}  // namespace velmar
