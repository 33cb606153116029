#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The --json output of tarnisctl's commands. tarnisctl does not link jsoncpp
// (see JsonCommandHandOff.cpp), and its documents are small and flat: this
// writes one compactly, strings escaped as the event journal escapes them
// (bytes that are not UTF-8 survive as \udcXX).
namespace tarnisctl {

class JsonWriter {
public:
    JsonWriter& BeginObject() { return Open('{'); }
    JsonWriter& EndObject() { return Close('}'); }
    JsonWriter& BeginArray() { return Open('['); }
    JsonWriter& EndArray() { return Close(']'); }
    // The name of the next member of the open object.
    JsonWriter& Key(const std::string& name);
    JsonWriter& String(const std::string& value);
    JsonWriter& Int(int64_t value);
    JsonWriter& Bool(bool value);

    // The document and a newline on standard output: 0, or 1 with a sentence
    // when it could not be written (a closed pipe, a full disk).
    int Print() const;

private:
    JsonWriter& Open(char bracket);
    JsonWriter& Close(char bracket);
    // A comma before every value of a container but its first; none after a key.
    void BeforeValue();

    std::string text_;
    std::vector<bool> empty_;  // one per open container: nothing in it yet
    bool afterKey_ = false;
};

// "--json" right after the command name asks for the JSON form. It is an
// option there alone: the arguments after it are data (a property's default,
// a file's content, the dump's own arguments) that may spell anything.
bool TakeJsonOption(std::vector<std::string>* args);

}  // namespace tarnisctl
