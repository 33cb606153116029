#include "platform/EventJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include <json/json.h>

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <host/Host.h>
#include <log/log.h>
#include <host/Utf8.h>

#include "platform/seam/Dirs.h"

namespace platform {
namespace {

constexpr const char* kJournalDir = "/data/misc/tarnis";

// The arguments are strings, lists of strings, bools and integers; only the
// strings need care (a caller's stray bytes must survive), the rest is
// written by jsoncpp.
void AppendValue(std::string* out, const Json::Value& value, const Json::StreamWriterBuilder& builder) {
    if (value.isString()) {
        AppendJsonString(out, value.asString());
    } else if (value.isArray()) {
        out->push_back('[');
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            if (i > 0) out->push_back(',');
            AppendValue(out, value[i], builder);
        }
        out->push_back(']');
    } else if (value.isObject()) {
        out->push_back('{');
        bool first = true;
        for (const std::string& name : value.getMemberNames()) {
            if (!first) out->push_back(',');
            first = false;
            AppendJsonString(out, name);
            out->push_back(':');
            AppendValue(out, value[name], builder);
        }
        out->push_back('}');
    } else {
        *out += Json::writeString(builder, value);
    }
}

}  // namespace

std::string EventJournal::Path() { return DevicePath(std::string(kJournalDir) + "/events.jsonl"); }

int EventJournal::Record(const char* call, const Json::Value& args) {
    int forced = forcedResult_.load();
    if (forced == 0) {
        forced = static_cast<int>(android::base::GetIntProperty(kResultProperty, 0, INT32_MIN, INT32_MAX));
    }
    if (forced != 0) return forced;

    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    // Built by hand so that "call" comes first (jsoncpp orders keys by name).
    std::string text = "{\"call\":";
    AppendJsonString(&text, call);
    text += ",\"args\":";
    AppendValue(&text, args, builder);
    text += "}\n";

    std::string path = Path();
    MakeDirs(DevicePath(kJournalDir), 0771);
    android::base::unique_fd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!fd.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, tag_.c_str(), "cannot open %s: %s", path.c_str(), strerror(errno));
        return -1;
    }
    // One write per line: O_APPEND makes each one land whole at the end.
    ssize_t n;
    do {
        n = write(fd.get(), text.data(), text.size());
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(text.size())) {
        __android_log_print(ANDROID_LOG_ERROR, tag_.c_str(), "cannot append %s to %s: %s", call, path.c_str(),
                            n < 0 ? strerror(errno) : "short write");
        return -1;
    }
    return 0;
}

}  // namespace platform
