#include "tools/tarnisctl/JsonWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <host/Utf8.h>

namespace tarnisctl {

JsonWriter& JsonWriter::Key(const std::string& name) {
    BeforeValue();
    platform::AppendJsonString(&text_, name);
    text_.push_back(':');
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::String(const std::string& value) {
    BeforeValue();
    platform::AppendJsonString(&text_, value);
    return *this;
}

JsonWriter& JsonWriter::Int(int64_t value) {
    BeforeValue();
    text_ += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::Bool(bool value) {
    BeforeValue();
    text_ += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::Open(char bracket) {
    BeforeValue();
    text_.push_back(bracket);
    empty_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
    text_.push_back(bracket);
    if (!empty_.empty()) empty_.pop_back();
    return *this;
}

void JsonWriter::BeforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (empty_.empty()) return;
    if (!empty_.back()) text_.push_back(',');
    empty_.back() = false;
}

int JsonWriter::Print() const {
    const std::string line = text_ + "\n";
    if (fwrite(line.data(), 1, line.size(), stdout) != line.size() || fflush(stdout) != 0) {
        fprintf(stderr, "tarnisctl: cannot write the output: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

bool TakeJsonOption(std::vector<std::string>* args) {
    if (args->empty() || (*args)[0] != "--json") return false;
    args->erase(args->begin());
    return true;
}

}  // namespace tarnisctl
