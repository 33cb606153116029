#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/LogCapture.h"

namespace tarnis_test {

// Captured lines of that tag and priority whose whole text is `text`: a
// changed word, a missing argument or trailing text all count as a miss.
inline size_t CountExact(const platform::LogCapture& capture, const std::string& text, const std::string& tag,
                         int prio) {
    size_t count = 0;
    for (const platform::LogLine& line : capture.Lines()) {
        count += line.tag == tag && line.prio == prio && line.text == text;
    }
    return count;
}

// For lines that carry a measured time or an id: the number N of every line
// of that tag and priority whose whole text is `before` + N + `after`, N a
// decimal integer (with an optional minus sign).
inline std::vector<long> NumbersInLines(const platform::LogCapture& capture, const std::string& before,
                                        const std::string& after, const std::string& tag, int prio) {
    std::vector<long> numbers;
    for (const platform::LogLine& line : capture.Lines()) {
        const std::string& text = line.text;
        if (line.tag != tag || line.prio != prio) continue;
        if (text.size() <= before.size() + after.size()) continue;
        if (text.compare(0, before.size(), before) != 0) continue;
        if (text.compare(text.size() - after.size(), after.size(), after) != 0) continue;
        const std::string number = text.substr(before.size(), text.size() - before.size() - after.size());
        const size_t digits = number[0] == '-' ? 1 : 0;
        if (number.size() == digits || number.find_first_not_of("0123456789", digits) != std::string::npos) continue;
        numbers.push_back(std::stol(number));
    }
    return numbers;
}

}  // namespace tarnis_test
