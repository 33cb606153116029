#pragma once

#include <json/json.h>

#include <string>

#include "platform/EventJournal.h"

// The diagnostics-event library. On a device it is a closed platform library
// that carries an event and its typed fields to the maker's collector; here
// sendEvent records the event as one line of the event journal
// (platform/EventJournal.h):
//   {"call":"sendEvent","args":[901005303,{"BootIndex":2,"Digest":"..."}]}
// strings stay strings and numbers stay numbers, so a reader sees the types
// the caller put.
namespace android {

class LumetraEvent {
public:
    explicit LumetraEvent(unsigned int eventId) : eventId_(eventId), fields_(Json::objectValue) {}

    LumetraEvent& putString(const std::string& key, const std::string& value);
    LumetraEvent& putInt(const std::string& key, int value);
    LumetraEvent& putLong(const std::string& key, long value);

    unsigned int eventId() const { return eventId_; }
    const Json::Value& fields() const { return fields_; }

private:
    unsigned int eventId_;
    Json::Value fields_;
};

class Lumetra {
public:
    // 0 once the event is on its way; otherwise the journal's forced result
    // or -1 when the journal cannot be written.
    static int sendEvent(LumetraEvent& event);
    // Non-zero: every call returns it; 0: back to the property / success.
    static void setResultForTesting(int result);
};

}  // namespace android
