#include "modules/LogManager/LogManagerEvent.h"

#include "modules/LogManager/JsonHelper.h"

namespace velmar {
namespace kolto {

namespace {
// One line to edit when a field is added: the receiving side matches the
// keys by these exact names.
constexpr char kKeyList[] =
    "EVENT_NAME, folderPath, totalSizeBefore, totalSize, reuseOpen, reuseClearSize, reuseMoveSize";
}  // namespace

const std::vector<std::string>& LogManagerEvent::Keys() {
    static const std::vector<std::string> keys = [] {
        std::vector<std::string> out;
        for (const std::string& piece : JsonHelper::StringSplit(kKeyList, ",")) {
            out.push_back(JsonHelper::StringTrim(piece));
        }
        return out;
    }();
    return keys;
}

bool LogManagerEvent::ToJson(Json::Value& out) const {
    const std::vector<std::string>& keys = Keys();
    out = Json::Value(Json::objectValue);
    return JsonHelper::ReadMembers(out, keys[0], EVENT_NAME) && JsonHelper::ReadMembers(out, keys[1], dirFullPath) &&
           JsonHelper::ReadMembers(out, keys[2], dirSizeBefore) &&
           JsonHelper::ReadMembers(out, keys[3], dirSizeAfter) && JsonHelper::ReadMembers(out, keys[4], isReuseOpen) &&
           JsonHelper::ReadMembers(out, keys[5], reuseClearSize) &&
           JsonHelper::ReadMembers(out, keys[6], reuseMoveSize);
}

}  // namespace kolto
}  // namespace velmar
