// GCC 12 reports std::regex's own NFA states as maybe uninitialized when
// built with the sanitizers (a false positive inside <regex>).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define LOG_TAG "f2fsTrack"

#include "modules/F2fsTrack/F2fsStatus.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>

#include <android-base/file.h>
#include <log/log.h>

#include "modules/F2fsTrack/F2fsTrack.h"
#include "utils/StringUtil.h"

namespace velmar {
namespace kolto {
namespace F2fsTrack {
namespace {

using Names = std::vector<std::string>;
using Values = std::vector<int>;

// Each expression is compiled once; a daily run and a fuzzer both feed many
// lines through the same few dozen.
const std::regex& Regex(const std::string& pattern) {
    static std::mutex lock;
    static std::map<std::string, std::regex>* cache = new std::map<std::string, std::regex>();
    std::lock_guard<std::mutex> guard(lock);
    auto it = cache->find(pattern);
    if (it == cache->end()) it = cache->emplace(pattern, std::regex(pattern, std::regex::ECMAScript)).first;
    return it->second;
}

std::string Underscored(const std::string& text) {
    std::string out;
    bool blank = false;
    for (char c : text) {
        if (isspace(static_cast<unsigned char>(c))) {
            blank = true;
            continue;
        }
        if (blank && !out.empty()) out += '_';
        blank = false;
        out += c;
    }
    return out;
}

std::string Escaped(const std::string& text) {
    static const std::string kSpecial = "\\^$.|?*+()[]{}";
    std::string out;
    for (char c : text) {
        if (kSpecial.find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

// Runs one family on a line into scratch lists and keeps its keys only when
// it finished: a line that makes an expression fail adds nothing.
template <typename Fn>
void Guarded(Names& names, Values& values, Fn fn) {
    Names newNames;
    Values newValues;
    try {
        fn(newNames, newValues);
    } catch (const std::regex_error& e) {
        ALOGE("Regex error: %s", e.what());
        return;
    } catch (const std::exception& e) {
        ALOGE("Error in f2fsStatusPattern: %s", e.what());
        return;
    }
    names.insert(names.end(), newNames.begin(), newNames.end());
    values.insert(values.end(), newValues.begin(), newValues.end());
}

void Add(Names& names, Values& values, const std::string& name, const std::string& number) {
    names.push_back(name);
    values.push_back(safe_stoi(number));
}

// Every "[NAME: n(SUB:n SUB:n)]" of a zone summary line.
void BracketPairs(const std::string& line, Names& names, Values& values) {
    if (line.find('[') == std::string::npos) return;
    const std::regex& re = Regex(R"(\[(\w+):\s*(\d+)\((\w+):(\d+)\s*(\w+):(\d+)\)\])");
    for (std::sregex_iterator it(line.begin(), line.end(), re), end; it != end; ++it) {
        const std::smatch& m = *it;
        Add(names, values, m[1], m[2]);
        Add(names, values, m[1].str() + "_" + m[3].str(), m[4]);
        Add(names, values, m[1].str() + "_" + m[5].str(), m[6]);
    }
}

// "Utilization: 13% (1864093 valid blocks, 0 discard blocks)": the share,
// then one key per "number words" part, named after the words.
void Utilization(const std::string& line, Names& names, Values& values) {
    if (line.find("Utilization") == std::string::npos || line.find("valid blocks") == std::string::npos) return;
    std::smatch m;
    if (!std::regex_search(line, m, Regex(R"(:\s*(\d+)%\s*\((\d+)\s*)"))) return;
    Add(names, values, "Utilization", m[1]);
    Add(names, values, "valid_blocks", m[2]);
    const std::string rest = m.suffix();
    const std::regex& sep = Regex(R"(,\s*)");
    std::sregex_token_iterator part(rest.begin(), rest.end(), sep, -1), end;
    if (part != end) ++part;  // "valid blocks" itself
    for (; part != end; ++part) {
        const std::string text = *part;
        std::smatch pm;
        if (std::regex_search(text, pm, Regex(R"(^(\d+)\s+(\w[\w ]*))"))) {
            Add(names, values, Underscored(pm[2]), pm[1]);
        }
    }
}

struct Rule {
    // Text every match contains: a line without it skips the expression,
    // which keeps the many lines that match nothing cheap.
    const char* needle;
    const char* pattern;
    std::vector<const char*> keys;  // one per capture, when no capture names the key
    int nameGroup;                  // the capture that names the key, 0 for none
    const char* namePrefix;
    const char* nameSuffix;
};

const std::vector<Rule>& Rules() {
    static const std::vector<Rule>* rules = new std::vector<Rule>{
        {"Hit Count", R"(- Hit Count: L1-1:(\d+) L1-2:(\d+) L2:(\d+))",
         {"Hit_Count_L1_1", "Hit_Count_L1_2", "Hit_Count_L2"}, 0, "", ""},
        {"Hit Ratio", R"(- Hit Ratio: (\d+)%\s*\((\d+)\s*/\s*(\d+)\))",
         {"Hit_Ratio", "Hit_Ratio_hits", "Hit_Ratio_lookups"}, 0, "", ""},
        {"CP calls", R"(CP calls:\s*(\d+)\s*\(BG:\s*(\d+)\))", {"CP_calls", "CP_BG_calls"}, 0, "", ""},
        {"CP count", R"(CP count:\s*(\d+))", {"CP_count"}, 0, "", ""},
        {" blocks", R"(- (cp|sit|nat|ssa) blocks\s*:\s*(\d+))", {}, 1, "", "_blks"},
        {"-", R"(-\s*(Queued|Issued|Total|Cur time|Peak time)\s*:\s*(\d+)\s*(?:\(ms\))?\s*)", {}, 1, "CP_", ""},
        {"DIO", R"(- DIO\s*\(R:\s*(\d+),\s*W:\s*(\d+)\))", {"DIO_R", "DIO_W"}, 0, "", ""},
        {"IO_R", R"(- IO_R\s*\(Data:\s*(\d+),\s*Node:\s*(\d+),\s*Meta:\s*(\d+))",
         {"IO_R_Data", "IO_R_Node", "IO_R_Meta"}, 0, "", ""},
        {"IO_W", R"(- IO_W\s*\(CP:\s*(\d+),\s*Data:\s*(\d+),\s*Flush:\s*\(\s*(\d+)\s*(\d+)\s*(\d+))",
         {"IO_W_CP", "IO_W_Data", "IO_W_Flush_flushing", "IO_W_Flush_flushed", "IO_W_Flush_empty"}, 0, "", ""},
        {"- MAIN", R"(- MAIN \(R: (\d+), W: (\d+) D: (\d+)\))", {"MAIN_R", "MAIN_W", "MAIN_D"}, 0, "", ""},
        {"- EXT", R"(- EXT \(R: (\d+), W: (\d+) D: (\d+)\))", {"EXT_R", "EXT_W", "EXT_D"}, 0, "", ""},
        {"atomic IO", R"(- atomic IO:\s*(\d+))", {"atomic_IO"}, 0, "", ""},
        {"IPU:", R"(IPU:\s*(\d+)\s*blocks)", {"IPU_blks"}, 0, "", ""},
        {"SSR:", R"(SSR:\s*(\d+)\s*blocks in (\d+)\s*segments)", {"SSR_blks", "SSR_segs"}, 0, "", ""},
        {"LFS:", R"(LFS:\s*(\d+)\s*blocks in (\d+)\s*segments)", {"LFS_blks", "LFS_segs"}, 0, "", ""},
        {"Memory:", R"(Memory:\s*(\d+) KB)", {"Mem_total"}, 0, "", ""},
        {" KB", R"(- (\w[\w\s]+):\s*(\d+) KB)", {}, 1, "Mem_", ""},
    };
    return *rules;
}

// Labels read as label + "\s*:\s*(\d+)", with the key each gives.
struct Label {
    const char* label;
    const char* key;
};
constexpr Label kLabels[] = {
    {"Current Time Sec", "Current_Time_Sec"},
    {"- Node", "valid_node_blocks"},
    {"- Data", "valid_data_blocks"},
    {"data segments", "gc_data_segments"},
    {"node segments", "gc_node_segments"},
    {"data blocks", "gc_data_blocks"},
    {"node blocks", "gc_node_blocks"},
    {"Idle Greedy", "Idle_Greedy"},
    {"Urgent High", "Urgent_High"},
    {"Urgent Mid", "Urgent_Mid"},
    {"Urgent Low", "Urgent_Low"},
};
// Carries its number inside the label instead of after a colon.
constexpr char kTryToMove[] = R"(Try to move (\d+) blocks)";

// The segment types of the main-area table, as the kernel writes them.
constexpr const char* kSegTypes[] = {"COLD data",   "WARM data",   "HOT data",    "Dir dnode",
                                     "File dnode",  "Indir nodes", "Pinned file", "ATGC data"};

}  // namespace

void getPatternNum(std::string line, std::string key, Names& names, Values& values) {
    Guarded(names, values, [&](Names& n, Values& v) {
        std::smatch m;
        if (key == kTryToMove) {
            if (line.find("Try to move") != std::string::npos && std::regex_search(line, m, Regex(key))) {
                Add(n, v, "Try_to_move_blocks", m[1]);
            }
            return;
        }
        if (line.find(key) == std::string::npos) return;
        if (!std::regex_search(line, m, Regex(Escaped(key) + R"(\s*:\s*(\d+))"))) return;
        std::string name = "gc_" + Underscored(key);
        for (const Label& label : kLabels) {
            if (key == label.label) name = label.key;
        }
        Add(n, v, name, m[1]);
    });
}

void getSegsInfo(std::string line, std::string label, std::string prefix, Names& names, Values& values) {
    Guarded(names, values, [&](Names& n, Values& v) {
        if (line.find(label.substr(0, label.find(' '))) == std::string::npos) return;
        std::istringstream words(label);
        std::string word;
        std::string pattern = R"(^\s*-\s*)";
        bool first = true;
        while (words >> word) {
            pattern += (first ? "" : R"(\s+)") + Escaped(word);
            first = false;
        }
        pattern += R"(:\s*(\d+)\s*(\d+)\s*(\d+)\s*(\d+)\s*(\d+)\s*(\d+))";
        std::smatch m;
        if (!std::regex_search(line, m, Regex(pattern))) return;
        const std::string type = prefix + Underscored(label);
        Add(n, v, type + "_dirty_seg", m[4]);
        Add(n, v, type + "_full_seg", m[5]);
        Add(n, v, type + "_valid_blk", m[6]);
    });
}

void f2fsStatusPattern(std::string line, Names& names, Values& values, std::string prefix) {
    Guarded(names, values, [&](Names& n, Values& v) {
        for (const Rule& rule : Rules()) {
            if (line.find(rule.needle) == std::string::npos) continue;
            std::smatch m;
            if (!std::regex_search(line, m, Regex(rule.pattern))) continue;
            if (rule.nameGroup == 0) {
                for (size_t i = 0; i < rule.keys.size() && i + 1 < m.size(); ++i) {
                    Add(n, v, prefix + rule.keys[i], m[i + 1]);
                }
            } else {
                const int valueGroup = rule.nameGroup == 1 ? 2 : 1;
                Add(n, v, prefix + rule.namePrefix + Underscored(m[rule.nameGroup]) + rule.nameSuffix, m[valueGroup]);
            }
        }
    });
}

void parseF2fsStatusLine(const std::string& line, Names& names, Values& values) {
    if (line.size() > kMaxStatusLine) {
        ALOGE("Status line too long (%zu bytes), skipped: '%s'", line.size(),
              StringUtil::ForLog(line, 64).c_str());
        return;
    }
    Guarded(names, values, [&](Names& n, Values& v) { BracketPairs(line, n, v); });
    Guarded(names, values, [&](Names& n, Values& v) { Utilization(line, n, v); });
    for (const Label& label : kLabels) getPatternNum(line, label.label, names, values);
    getPatternNum(line, kTryToMove, names, values);
    for (const char* type : kSegTypes) getSegsInfo(line, type, "", names, values);
    f2fsStatusPattern(line, names, values, "");
}

void parseF2fsStatusText(const std::string& text, Names& names, Values& values) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) parseF2fsStatusLine(line, names, values);
}

void getF2fsStatusInfo(std::string path, Names& names, Values& values) {
    std::string text;
    if (!android::base::ReadFileToString(path, &text, true)) {
        ALOGE("Failed to open %s, err %s", path.c_str(), strerror(errno));
        return;
    }
    parseF2fsStatusText(text, names, values);
}

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
