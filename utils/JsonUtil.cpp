#include "utils/JsonUtil.h"

// The peer daemon and the analytics back end compare our JSON text byte for
// byte with what the classic Reader/FastWriter pair produces (trailing newline
// included), so we keep using them although jsoncpp marks them deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace velmar {
namespace kolto {

bool JsonUtil::ConvertStringToJson(const std::string& text, Json::Value& out) {
    Json::Reader reader;
    return reader.parse(text, out, false);
}

std::string JsonUtil::ConvertJsonToString(Json::Value value) {
    Json::FastWriter writer;
    return writer.write(value);
}

}  // namespace kolto
}  // namespace velmar

#pragma GCC diagnostic pop
