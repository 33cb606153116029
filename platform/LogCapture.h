#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace platform {

struct LogLine {
    int prio;
    std::string tag;
    std::string text;
};

// Collects every log line written by any thread of this process while it is
// alive, so that tests can assert on the quoted messages. Captures nest: each
// one sees the lines written during its own lifetime.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const;
    // True when a line of this tag (any tag if empty) and priority (any if 0)
    // contains `text`.
    bool Contains(const std::string& text, const std::string& tag = "", int prio = 0) const;
    // True when a line of this tag and priority is exactly `text`: the way to
    // check a quoted message, where a changed word at either end must fail.
    bool HasLine(const std::string& text, const std::string& tag = "", int prio = 0) const;
    // The number of such lines.
    size_t Count(const std::string& text, const std::string& tag = "", int prio = 0) const;
    void Clear();

    // Called by the logger for each line.
    void Append(int prio, const char* tag, const char* text);

private:
    mutable std::mutex lock_;
    std::vector<LogLine> lines_;
};

}  // namespace platform
