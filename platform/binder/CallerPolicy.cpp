#include "platform/binder/CallerPolicy.h"

#include <unistd.h>

#include <cctype>
#include <sstream>
#include <vector>

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/parseint.h>
#include <host/Host.h>

namespace android {
namespace {

constexpr uid_t kRootUid = 0;
constexpr uid_t kSystemUid = 1000;

bool ValidName(const std::string& s, bool dots) {
    if (s.empty()) return false;
    for (char c : s) {
        if (!(isalnum(static_cast<unsigned char>(c)) || c == '_' || (dots && c == '.'))) return false;
    }
    return s.front() != '.' && s.back() != '.';
}

// One rule of a line, or the reason it is not one.
bool ParseLine(const std::string& line, std::string* key, CallerPolicy::Rule* rule, std::string* why) {
    std::istringstream fields(line);
    std::string uids, extra;
    fields >> *key >> uids;
    if (uids.empty()) {
        *why = "expected \"DESCRIPTOR.METHOD UID[,UID...]\"";
        return false;
    }
    if (fields >> extra) {
        *why = "unexpected \"" + extra + "\" after the uid list (no spaces inside it)";
        return false;
    }
    const size_t dot = key->rfind('.');
    const std::string descriptor = dot == std::string::npos ? "" : key->substr(0, dot);
    const std::string method = dot == std::string::npos ? "" : key->substr(dot + 1);
    if (!ValidName(descriptor, true) || (method != "*" && !ValidName(method, false))) {
        *why = "\"" + *key + "\" is not DESCRIPTOR.METHOD or DESCRIPTOR.*";
        return false;
    }
    size_t at = 0;
    for (;;) {
        const size_t comma = std::min(uids.find(',', at), uids.size());
        const std::string item = uids.substr(at, comma - at);
        uid_t uid = 0;
        if (item == "*") {
            rule->anyone = true;
        } else if (item == "self") {
            rule->uids.insert(getuid());
        } else if (base::ParseUint(item, &uid, static_cast<uid_t>(-2))) {
            rule->uids.insert(uid);
        } else {
            *why = "\"" + item + "\" is not a uid, \"self\" or \"*\"";
            return false;
        }
        if (comma == uids.size()) return true;
        at = comma + 1;
    }
}

const CallerPolicy::Rule* Find(const CallerPolicy::Rules& rules, const std::string& descriptor,
                               const std::string& method) {
    auto exact = rules.find(descriptor + "." + method);
    if (exact != rules.end()) return &exact->second;
    auto any = rules.find(descriptor + ".*");
    return any == rules.end() ? nullptr : &any->second;
}

}  // namespace

bool IsSystemCaller(uid_t uid) { return uid == kRootUid || uid == kSystemUid || uid == getuid(); }

const char* const CallerPolicy::kDefaultRules =
    "# Who may call each method of the daemon's services: DESCRIPTOR.METHOD UID[,UID...]\n"
    "# (METHOD \"*\": every method not named on a line of its own; UID \"*\": anybody,\n"
    "# \"self\": the uid the daemon runs as). Without this file these are the rules.\n"
    "nuvi.dorva.IDorvaNative.* 0,1000,self\n"
    "velmar.system.tarnis.common.ITarnisSsiIntl.* 0,1000,self\n"
    "velmar.system.tarnis.common.ITarnisSsi.* *\n";

CallerPolicy& CallerPolicy::instance() {
    static CallerPolicy* policy = new CallerPolicy();  // binder threads use it until the process ends
    return *policy;
}

CallerPolicy::CallerPolicy() : defaults_(Parse(kDefaultRules, "built-in caller policy")) {}

CallerPolicy::Rules CallerPolicy::Parse(const std::string& text, const std::string& source) {
    Rules rules;
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++number;
        line = line.substr(0, line.find('#'));
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        std::string key, why;
        Rule rule;
        if (!ParseLine(line, &key, &rule, &why)) {
            LOG(ERROR) << source << ":" << number << ": " << why << "; line skipped";
            continue;
        }
        rules[key] = std::move(rule);
    }
    return rules;
}

void CallerPolicy::reloadLocked() {
    const std::string path = platform::DevicePath(kPath);
    struct stat now {};
    const bool present = lstat(path.c_str(), &now) == 0;
    if (path == path_ && present == present_ &&
        (!present || (now.st_ino == seen_.st_ino && now.st_dev == seen_.st_dev && now.st_size == seen_.st_size &&
                      now.st_mtim.tv_sec == seen_.st_mtim.tv_sec && now.st_mtim.tv_nsec == seen_.st_mtim.tv_nsec))) {
        return;
    }
    path_ = path;
    present_ = present;
    seen_ = now;
    file_.clear();
    if (!present) return;
    std::string text;
    if (!S_ISREG(now.st_mode) || now.st_size > static_cast<off_t>(kMaxFileBytes) ||
        !base::ReadFileToString(path, &text)) {
        LOG(ERROR) << "caller policy: cannot use " << path << " (not a regular file of at most " << kMaxFileBytes
                   << " bytes); the built-in rules apply";
        return;
    }
    file_ = Parse(text, path);
    LOG(INFO) << "caller policy: " << file_.size() << " rule(s) from " << path;
}

bool CallerPolicy::allows(const std::string& descriptor, const std::string& method, uid_t uid) {
    std::lock_guard<std::mutex> lock(lock_);
    reloadLocked();
    const Rule* rule = Find(file_, descriptor, method);
    if (rule == nullptr) rule = Find(defaults_, descriptor, method);
    if (rule == nullptr) return IsSystemCaller(uid);
    return rule->anyone || rule->uids.count(uid) > 0;
}

}  // namespace android
