#define LOG_TAG "dorva-netlink"

#include "utils/wificond/nl80211_attribute.h"

#include <linux/netlink.h>

#include <log/log.h>

namespace android {
namespace wificond {

bool SplitAttributes(const uint8_t* data, size_t size, std::vector<BaseNL80211Attr>* out) {
    size_t offset = 0;
    while (offset + NLA_HDRLEN <= size) {
        nlattr header;
        memcpy(&header, data + offset, sizeof(header));
        if (header.nla_len < NLA_HDRLEN || header.nla_len > size - offset) return false;
        out->emplace_back(std::vector<uint8_t>(data + offset, data + offset + header.nla_len));
        offset += NLA_ALIGN(header.nla_len);
    }
    // Bytes left that cannot hold a header are a broken length too.
    return offset >= size;
}

BaseNL80211Attr::BaseNL80211Attr(uint16_t id, const std::vector<uint8_t>& payload) {
    nlattr header{};
    header.nla_len = static_cast<uint16_t>(NLA_HDRLEN + payload.size());
    header.nla_type = id;
    data_.resize(NLA_ALIGN(header.nla_len), 0);
    memcpy(data_.data(), &header, sizeof(header));
    if (!payload.empty()) memcpy(data_.data() + NLA_HDRLEN, payload.data(), payload.size());
}

uint16_t BaseNL80211Attr::GetAttributeId() const {
    if (data_.size() < NLA_HDRLEN) return 0;
    nlattr header;
    memcpy(&header, data_.data(), sizeof(header));
    return header.nla_type & NLA_TYPE_MASK;
}

const uint8_t* BaseNL80211Attr::Payload() const {
    return data_.size() < NLA_HDRLEN ? nullptr : data_.data() + NLA_HDRLEN;
}

size_t BaseNL80211Attr::PayloadSize() const {
    if (data_.size() < NLA_HDRLEN) return 0;
    nlattr header;
    memcpy(&header, data_.data(), sizeof(header));
    return header.nla_len - NLA_HDRLEN;
}

bool NL80211NestedAttr::GetListOfNestedAttributes(std::vector<NL80211NestedAttr>* out) const {
    std::vector<BaseNL80211Attr> attrs;
    if (!SplitAttributes(Payload(), PayloadSize(), &attrs)) {
        ALOGE("Failed to get list of nested attributes: invalid nla_len.");
        return false;
    }
    for (const BaseNL80211Attr& attr : attrs) out->emplace_back(attr.GetConstData());
    return true;
}

bool NL80211NestedAttr::GetAttribute(uint16_t id, BaseNL80211Attr* out) const {
    std::vector<BaseNL80211Attr> attrs;
    if (!SplitAttributes(Payload(), PayloadSize(), &attrs)) {
        ALOGE("Failed to get list of nested attributes: invalid nla_len.");
        return false;
    }
    for (const BaseNL80211Attr& attr : attrs) {
        if (attr.GetAttributeId() == id) {
            *out = attr;
            return true;
        }
    }
    return false;
}

bool NL80211NestedAttr::GetAttribute(uint16_t id, NL80211NestedAttr* out) const {
    BaseNL80211Attr attr;
    if (!GetAttribute(id, &attr)) return false;
    *out = NL80211NestedAttr(attr.GetConstData());
    return true;
}

bool NL80211NestedAttr::GetU8(uint16_t id, uint8_t* value) const {
    BaseNL80211Attr attr;
    if (!GetAttribute(id, &attr) || attr.PayloadSize() < 1) return false;
    *value = attr.Payload()[0];
    return true;
}

}  // namespace wificond
}  // namespace android
