#pragma once

#include <cstddef>
#include <string>
#include <vector>

// The f2fs status file, read into parallel lists of key names and signed
// 32-bit values. Its text is the kernel's and changes between versions: a
// line that no expression recognises adds nothing, a value that does not
// fit is logged and counts as 0, and nothing here throws.
namespace velmar {
namespace kolto {
namespace F2fsTrack {

// Lines longer than this are not matched: the kernel writes short lines, and
// the regular-expression engine's recursion grows with the line.
inline constexpr size_t kMaxStatusLine = 512;

// Reads `path` and parses it; "Failed to open %s, err %s" when it cannot.
void getF2fsStatusInfo(std::string path, std::vector<std::string>& names, std::vector<int>& values);
// The same for text already read (every line of it).
void parseF2fsStatusText(const std::string& text, std::vector<std::string>& names, std::vector<int>& values);

// One line: all expression families in turn.
void parseF2fsStatusLine(const std::string& line, std::vector<std::string>& names, std::vector<int>& values);
// The checkpoint, I/O and memory expressions; keys begin with `prefix`.
void f2fsStatusPattern(std::string line, std::vector<std::string>& names, std::vector<int>& values,
                       std::string prefix);
// One row of the segment-type table for type `label` (as the kernel writes
// it, words separated by blanks): prefix + label + "_dirty_seg", "_full_seg"
// and "_valid_blk".
void getSegsInfo(std::string line, std::string label, std::string prefix, std::vector<std::string>& names,
                 std::vector<int>& values);
// `key` followed by ":" and a number; the key name as the status keys name it.
void getPatternNum(std::string line, std::string key, std::vector<std::string>& names, std::vector<int>& values);

}  // namespace F2fsTrack
}  // namespace kolto
}  // namespace velmar
