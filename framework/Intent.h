#pragma once

#include <any>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <variant>

#include <json/json.h>

namespace velmar {
namespace kolto {

// A C-string extra. The intent keeps its own copy of the text, so the value
// stays valid however long the intent travels between threads.
struct CStringExtra {
    std::string text;
    bool operator==(const CStringExtra& other) const { return text == other.text; }
};

// The alternatives' order is the type code of the wire form: 0 JSON value,
// 1 bool, 2 string, 3 C string, 4 float, 5 int64, 6 int32, 7 any.
using ExtraValue = std::variant<Json::Value, bool, std::string, CStringExtra, float, int64_t, int32_t,
                                std::any>;

// An action and typed extras.
class Intent {
public:
    Intent() = default;
    explicit Intent(std::string action) : action(std::move(action)) {}

    // Stores a value of one of the extra types under `key`, replacing an
    // earlier value of that key. A `const char*` becomes a C-string extra,
    // a value of any other type an "any" extra.
    template <typename T>
    void putExtra(const std::string& key, T value) {
        using V = std::decay_t<T>;
        if constexpr (std::is_same_v<V, const char*> || std::is_same_v<V, char*>) {
            extras[key] = CStringExtra{value != nullptr ? value : ""};
        } else if constexpr (std::is_same_v<V, Json::Value> || std::is_same_v<V, bool> ||
                             std::is_same_v<V, std::string> || std::is_same_v<V, CStringExtra> ||
                             std::is_same_v<V, float> || std::is_same_v<V, int64_t> ||
                             std::is_same_v<V, int32_t>) {
            extras[key] = ExtraValue(std::in_place_type<V>, std::move(value));
        } else {
            extras[key] = ExtraValue(std::in_place_type<std::any>, std::any(std::move(value)));
        }
    }

    bool hasExtra(const std::string& key) const { return extras.count(key) != 0; }

    // The extra of that key when it holds exactly type T, else `fallback`.
    template <typename T>
    T getExtra(const std::string& key, T fallback) const {
        auto it = extras.find(key);
        if (it == extras.end()) return fallback;
        if (const T* value = std::get_if<T>(&it->second)) return *value;
        return fallback;
    }

    // A string or C-string extra as text.
    std::string getStringExtra(const std::string& key, const std::string& fallback = "") const;

    std::map<std::string, ExtraValue> extras;
    std::string label;
    std::string action;
    int64_t fromInternalManager = 0;
};

}  // namespace kolto
}  // namespace velmar
