#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "modules/LogManager/LogConfig.h"

namespace velmar {
namespace kolto {

// The log configuration as the log manager uses it: the list of records,
// their directories and lookups. Paths here are device paths; callers map
// them with paths::Get before touching the disk.
class LogManagerUtil {
public:
    // The records of a JSON array, parents set. A root that is not an array,
    // or an element that cannot be read, logs an ERROR; the list then holds
    // the records read before it.
    static std::vector<LogConfig> GenerateConfigList(Json::Value root);
    // Gives every child record a copy of the record it sits in (top-level
    // records get none). Call again after the list changes.
    static void SetParents(std::vector<LogConfig>& list);
    // folderPath when set; else the parent's directory, or the log root
    // (the vendor one when `inVendor` or the record's inVendor), + "/" + folderName.
    static std::string GetFullPathByConfig(const LogConfig& config, bool inVendor);
    // A copy of the first record named `name` (folderName or full path),
    // top-level records first, each followed by its children; nullopt and
    // an ERROR line when there is none.
    static std::optional<LogConfig> GetConfigByFolderName(const std::string& name,
                                                          const std::vector<LogConfig>& configs);
    // The managed log root `devicePath` lies in (the root itself included):
    // the two log roots, the sdcard and the traces directory; nullptr when
    // it lies in none. By name only; the disk is not looked at.
    static const char* ManagedRootOf(const std::string& devicePath);
    // Why the record may not be managed at `devicePath`, as one sentence
    // naming the record (escaped): a name that is not a plain name, a path
    // with "." or ".." steps or outside every managed root, a size, age or
    // delay too large for the arithmetic it goes into. Empty when it may.
    // Links are not looked for here: opening the directory below its root
    // refuses them.
    static std::string Refusal(const LogConfig& config, const std::string& devicePath);
    // `config` as a log line names it: its folderName, else its folderPath.
    static std::string Label(const LogConfig& config);
    // Reads the configuration file at `hostPath` (a file-system path). Every
    // record that can be read goes to `out` (parents set); records that
    // cannot, or that name no directory (no folderName, no folderPath), are
    // left out. `json` gets the parsed document (null when it did not
    // parse). True when nothing was wrong; otherwise `why` gets a sentence
    // naming the file and each problem, also logged as an ERROR. Any of the
    // out-params may be null.
    static bool ReadConfigFile(const std::string& hostPath, std::vector<LogConfig>* out, Json::Value* json,
                               std::string* why);
    // The same for the file's text, already read; `file` names it in `why`.
    static bool ParseConfigText(const std::string& text, const std::string& file, std::vector<LogConfig>* out,
                                Json::Value* json, std::string* why);
};

}  // namespace kolto
}  // namespace velmar
