#include <lumetra/Lumetra.h>

namespace android {
namespace {

platform::EventJournal& Journal() {
    static platform::EventJournal* journal = new platform::EventJournal("Lumetra");  // lives as long as the process
    return *journal;
}

}  // namespace

LumetraEvent& LumetraEvent::putString(const std::string& key, const std::string& value) {
    fields_[key] = value;
    return *this;
}

LumetraEvent& LumetraEvent::putInt(const std::string& key, int value) {
    fields_[key] = Json::Value(value);
    return *this;
}

LumetraEvent& LumetraEvent::putLong(const std::string& key, long value) {
    fields_[key] = Json::Value(static_cast<Json::Int64>(value));
    return *this;
}

int Lumetra::sendEvent(LumetraEvent& event) {
    Json::Value args(Json::arrayValue);
    args.append(Json::Value(event.eventId()));
    args.append(event.fields());
    return Journal().Record("sendEvent", args);
}

void Lumetra::setResultForTesting(int result) { Journal().SetResultForTesting(result); }

}  // namespace android
