#pragma once

// GCC 12 reports a false maybe-uninitialized inside <regex> when built with
// sanitizers, in whatever file instantiates it after this.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <cstddef>
#include <regex>
#include <string>
#include <vector>

#include "platform/LogCapture.h"

namespace tarnis_test {

// Captured lines (of that tag and priority, when given) whose whole text is
// `text`, where LogCapture::Count would take a part.
inline size_t CountExact(const platform::LogCapture& capture, const std::string& text, const std::string& tag = "",
                         int prio = 0) {
    size_t count = 0;
    for (const platform::LogLine& line : capture.Lines()) {
        count += (tag.empty() || line.tag == tag) && (prio == 0 || line.prio == prio) && line.text == text;
    }
    return count;
}

// The first line whose whole text matches `pattern` ("" when none), for
// lines with a number that varies (an elapsed time, a pid).
inline std::string LineMatching(const platform::LogCapture& log, const std::string& pattern,
                                const std::string& tag = "", int prio = 0) {
    const std::regex re(pattern);
    for (const platform::LogLine& line : log.Lines()) {
        if (!tag.empty() && line.tag != tag) continue;
        if (prio != 0 && line.prio != prio) continue;
        if (std::regex_match(line.text, re)) return line.text;
    }
    return "";
}

// Quotes `text` for use inside a regular expression.
inline std::string Literal(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// For lines that carry a measured time or an id: the integer N of every line of
// that tag and priority whose whole text is `before` + N + `after`.
inline std::vector<long> NumbersInLines(const platform::LogCapture& capture, const std::string& before,
                                        const std::string& after, const std::string& tag, int prio) {
    const std::regex re(Literal(before) + "(-?[0-9]+)" + Literal(after));
    std::vector<long> numbers;
    std::smatch match;
    for (const platform::LogLine& line : capture.Lines()) {
        if (line.tag != tag || line.prio != prio || !std::regex_match(line.text, match, re)) continue;
        numbers.push_back(std::stol(match[1]));
    }
    return numbers;
}

}  // namespace tarnis_test
