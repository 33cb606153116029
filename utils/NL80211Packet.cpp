#define LOG_TAG "dorva-netlink"

#include "utils/wificond/NL80211Packet.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstring>

#include <log/log.h>

namespace android {
namespace wificond {
namespace {

nlmsghdr Header(const std::vector<uint8_t>& data) {
    nlmsghdr header{};
    if (data.size() >= sizeof(header)) memcpy(&header, data.data(), sizeof(header));
    return header;
}

bool IsControlMessage(uint16_t type) {
    return type == NLMSG_NOOP || type == NLMSG_ERROR || type == NLMSG_DONE ||
           type == NLMSG_OVERRUN;
}

}  // namespace

NL80211Packet::NL80211Packet(uint16_t type, uint8_t command, uint32_t sequence, uint32_t portId) {
    data_.resize(NLMSG_HDRLEN + GENL_HDRLEN, 0);
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(data_.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_REQUEST;
    header.nlmsg_seq = sequence;
    header.nlmsg_pid = portId;
    memcpy(data_.data(), &header, sizeof(header));
    genlmsghdr genl{};
    genl.cmd = command;
    genl.version = 1;
    memcpy(data_.data() + NLMSG_HDRLEN, &genl, sizeof(genl));
}

bool NL80211Packet::IsValid() const {
    if (data_.size() < NLMSG_HDRLEN) return false;
    const nlmsghdr header = Header(data_);
    if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len != data_.size()) return false;
    if (header.nlmsg_type == NLMSG_ERROR) {
        if (data_.size() < NLMSG_HDRLEN + sizeof(nlmsgerr)) {
            ALOGE("Broken error message.");
            return false;
        }
        return true;
    }
    if (!IsControlMessage(header.nlmsg_type) && data_.size() < NLMSG_HDRLEN + GENL_HDRLEN) {
        ALOGE("Cannot retrieve generic netlink header.");
        return false;
    }
    return true;
}

uint16_t NL80211Packet::GetMessageType() const { return Header(data_).nlmsg_type; }

uint32_t NL80211Packet::GetMessageSequence() const { return Header(data_).nlmsg_seq; }

void NL80211Packet::SetMessageSequence(uint32_t sequence) {
    if (data_.size() < NLMSG_HDRLEN) return;
    nlmsghdr header = Header(data_);
    header.nlmsg_seq = sequence;
    memcpy(data_.data(), &header, sizeof(header));
}

uint8_t NL80211Packet::GetCommand() const {
    if (data_.size() < NLMSG_HDRLEN + GENL_HDRLEN) return 0;
    return data_[NLMSG_HDRLEN];
}

int NL80211Packet::GetErrorCode() const {
    if (data_.size() < NLMSG_HDRLEN + sizeof(nlmsgerr)) return 0;
    nlmsgerr error;
    memcpy(&error, data_.data() + NLMSG_HDRLEN, sizeof(error));
    return error.error;
}

void NL80211Packet::AddAttribute(const BaseNL80211Attr& attr) {
    const std::vector<uint8_t>& bytes = attr.GetConstData();
    data_.insert(data_.end(), bytes.begin(), bytes.end());
    nlmsghdr header = Header(data_);
    header.nlmsg_len = static_cast<uint32_t>(data_.size());
    memcpy(data_.data(), &header, sizeof(header));
}

bool NL80211Packet::GetAttributes(std::vector<BaseNL80211Attr>* out) const {
    const size_t start = NLMSG_HDRLEN + GENL_HDRLEN;
    if (data_.size() < start) return false;
    if (!SplitAttributes(data_.data() + start, data_.size() - start, out)) {
        ALOGE("Failed to get list of attributes: invalid nla_len.");
        return false;
    }
    return true;
}

bool NL80211Packet::GetAttribute(uint16_t id, BaseNL80211Attr* out) const {
    std::vector<BaseNL80211Attr> attrs;
    if (!GetAttributes(&attrs)) return false;
    for (const BaseNL80211Attr& attr : attrs) {
        if (attr.GetAttributeId() == id) {
            *out = attr;
            return true;
        }
    }
    return false;
}

bool NL80211Packet::GetAttribute(uint16_t id, NL80211NestedAttr* out) const {
    BaseNL80211Attr attr;
    if (!GetAttribute(id, &attr)) return false;
    *out = NL80211NestedAttr(attr.GetConstData());
    return true;
}

}  // namespace wificond
}  // namespace android
