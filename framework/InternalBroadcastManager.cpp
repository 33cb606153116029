#define LOG_TAG "Tarnis-InternalBroadcastManager"

#include "framework/InternalBroadcastManager.h"

#include <cfloat>
#include <cmath>

#include <log/log.h>

#include "framework/LocalBroadcastManager.h"
#include "framework/TarnisUtil.h"
#include "utils/JsonUtil.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace {

#define UNKNOWN_TYPE                                                                                     \
    "[%s] Unknown Type! value is not the supported type. Supported type: int boot string float int64_t " \
    "Json::Value, current type is "

Json::Value generateJsonValueByExtra(const std::string& key, const ExtraValue& extra) {
    Json::Value element(Json::objectValue);
    element["key"] = key;
    const size_t type = extra.index();
    // C strings travel as plain strings: the peer has no use for the
    // difference.
    element["value_type"] = static_cast<Json::Int>(type == 3 ? 2 : type);
    switch (type) {
        case 0: element["value"] = std::get<Json::Value>(extra); break;
        case 1: element["value"] = std::get<bool>(extra); break;
        case 2: element["value"] = std::get<std::string>(extra); break;
        case 3: element["value"] = std::get<CStringExtra>(extra).text; break;
        case 4: element["value"] = static_cast<double>(std::get<float>(extra)); break;
        case 5: element["value"] = static_cast<Json::Int64>(std::get<int64_t>(extra)); break;
        case 6: element["value"] = static_cast<Json::Int>(std::get<int32_t>(extra)); break;
        default:
            ALOGE(UNKNOWN_TYPE "%zu", "generateJsonValueByExtra", type);
            break;
    }
    return element;
}

// A short printable form of a peer's value for an error line.
std::string Shown(const Json::Value& value) {
    std::string text = JsonUtil::ConvertJsonToString(value);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return StringUtil::ForLog(text, 64);
}

// A peer may send anything. An element that does not make a well-typed extra
// is left out with an error line rather than delivered with a made-up value;
// the other elements still go through. No conversion here may throw: jsoncpp's
// as*() throw on a mismatch, so each is called only once its is*() agreed.
void putExtraByJson(Intent& intent, const Json::Value& element, Json::ArrayIndex index) {
    if (!element.isObject()) {
        ALOGE("[%s] Skipped extra #%u: not an object", "putExtraByJson", index);
        return;
    }
    const Json::Value& typeValue = element["value_type"];
    if (!typeValue.isInt()) {
        ALOGE("[%s] Skipped extra #%u: value_type %s is not a type code", "putExtraByJson", index,
              Shown(typeValue).c_str());
        return;
    }
    const int type = typeValue.asInt();
    if (type < 0 || type > 6) {
        ALOGE(UNKNOWN_TYPE "%d", "putExtraByJson", type);
        return;
    }
    const Json::Value& keyValue = element["key"];
    if (!keyValue.isString()) {
        ALOGE("[%s] Skipped extra #%u: key %s is not a string", "putExtraByJson", index, Shown(keyValue).c_str());
        return;
    }
    const std::string key = keyValue.asString();
    const Json::Value& value = element["value"];
    switch (type) {
        case 0:
            intent.putExtra(key, value);
            return;
        case 1:
            if (!value.isBool()) break;
            intent.putExtra(key, value.asBool());
            return;
        case 2:
        case 3:
            if (!value.isString()) break;
            intent.putExtra(key, value.asString());
            return;
        case 4:
            // Beyond FLT_MAX the float would be infinite (and the conversion
            // undefined): out of range, like an integer that does not fit.
            if (!value.isNumeric() || !(std::fabs(value.asDouble()) <= FLT_MAX)) break;
            intent.putExtra(key, static_cast<float>(value.asDouble()));
            return;
        case 5:
            if (!value.isInt64()) break;
            intent.putExtra(key, static_cast<int64_t>(value.asInt64()));
            return;
        case 6:
            if (!value.isInt()) break;
            intent.putExtra(key, static_cast<int32_t>(value.asInt()));
            return;
    }
    ALOGE("[%s] Skipped extra #%u (key %s): value %s does not fit type %d", "putExtraByJson", index,
          StringUtil::ForLog(key, 128).c_str(), Shown(value).c_str(), type);
}

}  // namespace

void InternalBroadcastManager::registerReceiver(BroadcastReceiver* receiver, IntentFilter filter) {
    filter.internal = true;
    LocalBroadcastManager::getInstance().registerReceiver(receiver, std::move(filter));
}

void InternalBroadcastManager::unregisterReceiver(BroadcastReceiver* receiver) {
    LocalBroadcastManager::getInstance().unregisterReceiver(receiver);
}

bool InternalBroadcastManager::sendBroadcast(Intent intent, bool toPeer) {
    if (toPeer) {
        if (TarnisUtil::HasTarnisSsiIntl()) {
            // This end is the system daemon: the peer is the vendor daemon.
            auto peer = TarnisUtil::GetTarnisIntl();
            if (!peer) {
                ALOGW("[%s] Failed to get Tarnis Vendor instance!", "sendBroadcast");
            } else {
                peer->transferMessage(intent.action, intentToJsonStr(intent));
            }
        } else {
            auto system = TarnisUtil::GetTarnisSsiIntl();
            if (!system) {
                ALOGW("[%s] Failed to get Tarnis System instance!", "sendBroadcast");
            } else {
                system->transferMessage(intent.action, intentToJsonStr(intent));
            }
        }
    }
    intent.fromInternalManager = 1;
    return LocalBroadcastManager::getInstance().sendBroadcast(intent, true);
}

std::string InternalBroadcastManager::intentToJsonStr(Intent& intent) {
    Json::Value root(Json::objectValue);
    Json::Value extras(Json::arrayValue);
    for (const auto& [key, value] : intent.extras) extras.append(generateJsonValueByExtra(key, value));
    root["extras"] = extras;
    return JsonUtil::ConvertJsonToString(root);
}

void InternalBroadcastManager::onTarnisIntlMessageReceived(const std::string& action, const std::string& json) {
    Intent intent(action);
    Json::Value root;
    if (!JsonUtil::ConvertStringToJson(json, root)) {
        ALOGE("[%s] ConvertStringToJson failed!", "jsonStrToIntent");
    } else {
        const Json::Value& extras = root.isObject() ? root["extras"] : Json::Value::nullSingleton();
        if (extras.isNull() || !extras.isArray()) {
            ALOGD("[%s] extras is null or not the valid array! intent will no extra info", "jsonStrToIntent");
        } else {
            for (Json::ArrayIndex i = 0; i < extras.size(); ++i) putExtraByJson(intent, extras[i], i);
        }
    }
    sendBroadcast(intent, false);
}

}  // namespace kolto
}  // namespace velmar
