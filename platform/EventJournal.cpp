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

#include "platform/Dirs.h"

namespace platform {
namespace {

constexpr const char* kJournalDir = "/data/misc/tarnis";

// Appends `text` as a JSON string. jsoncpp would copy bytes that are not
// UTF-8 into the line as they are (with emitUTF8) or replace them (without),
// so a caller's stray bytes would make the line unreadable or be lost. Here
// valid UTF-8 stays as it is and every other byte XX becomes the lone
// surrogate \udcXX, Python's "surrogateescape": the line is valid JSON in
// valid UTF-8, and json.loads(line) then .encode("utf-8", "surrogateescape")
// gives the caller's bytes back. Valid UTF-8 never holds a surrogate, so the
// escape cannot be confused with text.
void AppendQuoted(std::string* out, const std::string& text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out->push_back('"');
    size_t pos = 0;
    while (pos < text.size()) {
        const auto byte = static_cast<unsigned char>(text[pos]);
        const size_t length = platform::Utf8SequenceLength(text, pos);
        if (length == 0) {
            *out += "\\udc";
            out->push_back(kHex[byte >> 4]);
            out->push_back(kHex[byte & 0xF]);
            ++pos;
            continue;
        }
        switch (byte) {
            case '"': *out += "\\\""; break;
            case '\\': *out += "\\\\"; break;
            case '\b': *out += "\\b"; break;
            case '\f': *out += "\\f"; break;
            case '\n': *out += "\\n"; break;
            case '\r': *out += "\\r"; break;
            case '\t': *out += "\\t"; break;
            default:
                if (byte < 0x20) {
                    *out += "\\u00";
                    out->push_back(kHex[byte >> 4]);
                    out->push_back(kHex[byte & 0xF]);
                } else {
                    out->append(text, pos, length);
                }
                break;
        }
        pos += length;
    }
    out->push_back('"');
}

// The arguments are strings, lists of strings, bools and integers; only the
// strings need the care above, the rest is written by jsoncpp.
void AppendValue(std::string* out, const Json::Value& value, const Json::StreamWriterBuilder& builder) {
    if (value.isString()) {
        AppendQuoted(out, value.asString());
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
            AppendQuoted(out, name);
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
    AppendQuoted(&text, call);
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
