#pragma once

#include <cstdint>
#include <vector>

#include "utils/wificond/nl80211_attribute.h"

namespace android {
namespace wificond {

// One generic-netlink message: netlink header, generic header, attributes.
class NL80211Packet {
public:
    NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t portId);
    // A received message; check IsValid() before reading it.
    explicit NL80211Packet(std::vector<uint8_t> data) : data_(std::move(data)) {}

    // A complete netlink header whose length is the buffer's, a generic
    // header for generic messages, a whole nlmsgerr for error messages.
    bool IsValid() const;

    uint16_t GetMessageType() const;
    uint8_t GetCommand() const;
    uint32_t GetMessageSequence() const;
    void SetMessageSequence(uint32_t sequence);
    // The negative errno of an error message (0 for an acknowledgement).
    int GetErrorCode() const;

    void AddAttribute(const BaseNL80211Attr& attr);
    bool GetAttribute(uint16_t id, BaseNL80211Attr* out) const;
    bool GetAttribute(uint16_t id, NL80211NestedAttr* out) const;
    bool GetAttributes(std::vector<BaseNL80211Attr>* out) const;

    const std::vector<uint8_t>& GetConstData() const { return data_; }

private:
    std::vector<uint8_t> data_;
};

}  // namespace wificond
}  // namespace android
