#pragma once

#include <atomic>
#include <string>

namespace Json {
class Value;
}

// The record the stand-ins of the closed libraries (the quality-service
// client, the diagnostics-event library) leave instead of their effect: every
// call is one JSON line in <root>/data/misc/tarnis/events.jsonl,
//   {"call":"reportEventV2","args":["a","b","c",true]}
// with the arguments in order. Whatever bytes a caller passes, a line stays
// valid JSON in valid UTF-8: a byte that is not part of valid UTF-8 is written
// as \udcXX ("surrogateescape"), so the bytes can be restored. Each line is
// written with a single append, so lines of concurrent callers (threads or
// processes) never interleave.
//
// Calls fail on demand: the property "debug.tarnis.journal_result" set to a
// non-zero integer (seen by every process on the root), or SetResultForTesting
// on one client's journal. A failing call records nothing and returns that
// value; a journal that cannot be written gives -1 and an error line.
namespace platform {

class EventJournal {
public:
    // `tag` names the client in error lines.
    explicit EventJournal(std::string tag) : tag_(std::move(tag)) {}

    // 0 when the line was appended, else the forced result or -1.
    int Record(const char* call, const Json::Value& args);
    // Non-zero: every call returns it; 0: back to the property / success.
    void SetResultForTesting(int result) { forcedResult_ = result; }

    static std::string Path();
    static constexpr const char* kResultProperty = "debug.tarnis.journal_result";

private:
    const std::string tag_;
    std::atomic<int> forcedResult_{0};
};

}  // namespace platform
