#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <map>
#include <mutex>
#include <set>
#include <string>

// Which uids may call each method of the services this process serves: on a
// device binder's and SELinux's policy decide that before a call reaches the
// daemon; on the host this does, from a file below the root that the user may
// edit. Every remote transaction of a local object is checked here once,
// before it is unmarshalled (BBinder::transact); in-process callers are this
// process itself.
//
// The file holds one rule a line; "#" starts a comment:
//     DESCRIPTOR.METHOD  UID[,UID...]
// DESCRIPTOR is the interface's ("nuvi.dorva.IDorvaNative"), METHOD one of
// its methods, "dump" for the dump command, or "*" for every method the file
// does not name one by one. A UID is a number, "self" (the uid this process
// runs as) or "*" (anybody). A method the file does not cover follows the
// built-in rules (kDefaultRules, the device's), and one they do not cover
// either is open to root, system and this process's own uid. A malformed
// line is logged with its number and skipped; the file is read again when it
// changes.
namespace android {

// Root, the system uid and the uid this process runs as.
bool IsSystemCaller(uid_t uid);

class CallerPolicy {
public:
    static constexpr const char* kPath = "/system/etc/tarnis/caller_policy.conf";
    // The device's rules, in the file's own format: the native daemon service
    // and the internal (peer) service for system callers only, the event
    // service (reports and dump) for everyone. scripts/prepare-sandbox.sh
    // writes the same text for the user to edit.
    static const char* const kDefaultRules;
    static constexpr size_t kMaxFileBytes = 64 * 1024;

    static CallerPolicy& instance();

    // True when `uid` may call `method` of the interface `descriptor`.
    bool allows(const std::string& descriptor, const std::string& method, uid_t uid);

    struct Rule {
        bool anyone = false;
        std::set<uid_t> uids;
    };
    using Rules = std::map<std::string, Rule>;  // "DESCRIPTOR.METHOD" -> who
    // Parses rules; each malformed line is logged, naming `source` and the
    // line, and skipped.
    static Rules Parse(const std::string& text, const std::string& source);

private:
    CallerPolicy();
    void reloadLocked();

    std::mutex lock_;
    Rules defaults_;
    Rules file_;
    std::string path_;       // the file's path below the root it was read for
    bool present_ = false;   // what the file was when last read
    struct stat seen_ {};
};

}  // namespace android
