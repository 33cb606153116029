#include "framework/InternalBroadcastManager.h"

#include "framework/LocalBroadcastManager.h"
#include "framework/TarnisUtil.h"
#include "platform/Log.h"
#include "utils/JsonUtil.h"

#define LOG_TAG "Tarnis-InternalBroadcastManager"

namespace velmar {
namespace kolto {
namespace {

#define UNKNOWN_TYPE                                                                                     \
    "[%s] Unknown Type! value is not the supported type. Supported type: int boot string float int64_t " \
    "Json::Value, current type is "

// A peer may send anything: values that do not convert read as zero instead
// of ending the process with a conversion failure.
int64_t ToInt64(const Json::Value& value) {
    if (value.isInt64()) return value.asInt64();
    if (value.isUInt64()) return static_cast<int64_t>(value.asUInt64());
    if (value.isDouble() && value.asDouble() >= -9.2e18 && value.asDouble() <= 9.2e18) {
        return static_cast<int64_t>(value.asDouble());
    }
    if (value.isBool()) return value.asBool() ? 1 : 0;
    return 0;
}

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

void putExtraByJson(Intent& intent, const Json::Value& element) {
    const Json::Value& typeValue = element["value_type"];
    const Json::Value& value = element["value"];
    const Json::Value& keyValue = element["key"];
    const int64_t rawType = ToInt64(typeValue);
    const int type = typeValue.isNumeric() && rawType >= INT32_MIN && rawType <= INT32_MAX
                         ? static_cast<int>(rawType)
                         : -1;
    const std::string key = keyValue.isConvertibleTo(Json::stringValue) ? keyValue.asString() : "";
    switch (type) {
        case 0: intent.putExtra(key, value); break;
        case 1: intent.putExtra(key, value.isConvertibleTo(Json::booleanValue) ? value.asBool() : false); break;
        case 2:
        case 3:
            intent.putExtra(key, value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string());
            break;
        case 4:
            intent.putExtra(key, value.isConvertibleTo(Json::realValue) ? value.asFloat() : 0.0f);
            break;
        case 5:
            intent.putExtra(key, ToInt64(value));
            break;
        case 6:
            intent.putExtra(key, static_cast<int32_t>(ToInt64(value)));
            break;
        default:
            ALOGE(UNKNOWN_TYPE "%d", "putExtraByJson", type);
            break;
    }
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
            for (const Json::Value& element : extras) {
                if (element.isObject()) putExtraByJson(intent, element);
            }
        }
    }
    sendBroadcast(intent, false);
}

}  // namespace kolto
}  // namespace velmar
