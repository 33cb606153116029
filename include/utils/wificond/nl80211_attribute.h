#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

namespace android {
namespace wificond {

// One netlink attribute as it sits on the wire: the nlattr header followed by
// the payload, padded to four bytes.
class BaseNL80211Attr {
public:
    BaseNL80211Attr(uint16_t id, const std::vector<uint8_t>& payload);
    // Takes the bytes of a whole attribute already checked by the caller.
    explicit BaseNL80211Attr(std::vector<uint8_t> raw) : data_(std::move(raw)) {}
    BaseNL80211Attr() = default;

    uint16_t GetAttributeId() const;
    const std::vector<uint8_t>& GetConstData() const { return data_; }
    const uint8_t* Payload() const;
    size_t PayloadSize() const;

protected:
    std::vector<uint8_t> data_;
};

// An attribute whose payload is a list of further attributes.
class NL80211NestedAttr : public BaseNL80211Attr {
public:
    using BaseNL80211Attr::BaseNL80211Attr;
    NL80211NestedAttr() = default;

    // Finds the first inner attribute with this id. A list whose lengths do
    // not add up is refused with a log line.
    bool GetAttribute(uint16_t id, BaseNL80211Attr* out) const;
    bool GetAttribute(uint16_t id, NL80211NestedAttr* out) const;
    bool GetU8(uint16_t id, uint8_t* value) const;
    // Every inner attribute, in order.
    bool GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* out) const;
};

// Splits `size` bytes of attributes; false when an nla_len is too small or
// runs past the end. Shared by packets and nested attributes.
bool SplitAttributes(const uint8_t* data, size_t size, std::vector<BaseNL80211Attr>* out);

}  // namespace wificond
}  // namespace android
