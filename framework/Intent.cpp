#include "framework/Intent.h"

namespace velmar {
namespace kolto {

std::string Intent::getStringExtra(const std::string& key, const std::string& fallback) const {
    auto it = extras.find(key);
    if (it == extras.end()) return fallback;
    if (const std::string* text = std::get_if<std::string>(&it->second)) return *text;
    if (const CStringExtra* text = std::get_if<CStringExtra>(&it->second)) return text->text;
    return fallback;
}

}  // namespace kolto
}  // namespace velmar
