#include <nuvi/dorva/BpDorvaNative.h>

#include <utility>

namespace nuvi {
namespace dorva {

using android::String16;
using android::binder::Status;

Status BpDorvaNative::captureLog(const String16& type, const String16& headline, const std::vector<String16>& actions,
                                 const std::vector<String16>& params, bool offline, int32_t id, bool useId,
                                 const String16& where, const std::vector<String16>& files, bool isRecordInLocal) {
    return transactCall(TRANSACTION_captureLog, nullptr, type, headline, actions, params, offline, id, useId, where,
                        files, isRecordInLocal);
}

Status BpDorvaNative::attachSockFilter(const String16& srcMac, const String16& dstMac, int32_t srcAddr,
                                       int32_t dstAddr, int32_t protocol, int32_t srcPort, int32_t dstPort,
                                       const std::vector<uint8_t>& payload, int32_t extraLen, const String16& ifname,
                                       android::os::ParcelFileDescriptor* socket) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_attachSockFilter, &reply, srcMac, dstMac, srcAddr, dstAddr, protocol,
                                 srcPort, dstPort, payload, extraLen, ifname);
    if (!status.isOk()) return status;
    int32_t present = 0;
    if (reply.readInt32(&present) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    if (present == 0) {
        socket->reset();
        return status;
    }
    if (reply.read(socket) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    return status;
}

Status BpDorvaNative::setCoreFilter(int32_t pid, bool enable) {
    return transactCall(TRANSACTION_setCoreFilter, nullptr, pid, enable);
}

Status BpDorvaNative::runCommand(const String16& action, const String16& params, int32_t timeoutSeconds,
                                 int32_t* result) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_runCommand, &reply, action, params, timeoutSeconds);
    if (status.isOk() && reply.readInt32(result) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    return status;
}

Status BpDorvaNative::startDefrag() { return transactCall(TRANSACTION_startDefrag, nullptr); }

Status BpDorvaNative::createFileInPersist(const String16& path, int32_t* result) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_createFileInPersist, &reply, path);
    if (status.isOk() && reply.readInt32(result) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    return status;
}

Status BpDorvaNative::writeToPersistFile(const String16& path, const String16& content) {
    return transactCall(TRANSACTION_writeToPersistFile, nullptr, path, content);
}

Status BpDorvaNative::readFile(const String16& path, String16* content) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_readFile, &reply, path);
    if (status.isOk() && reply.readString16(content) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    return status;
}

Status BpDorvaNative::getFilesFromPersist(String16* list) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_getFilesFromPersist, &reply);
    if (status.isOk() && reply.readString16(list) != android::OK) return Status::fromStatus(STATUS_BAD_VALUE);
    return status;
}

Status BpDorvaNative::stopDefrag() { return transactCall(TRANSACTION_stopDefrag, nullptr); }

Status BpDorvaNative::resumeDefrag() { return transactCall(TRANSACTION_resumeDefrag, nullptr); }

Status BpDorvaNative::flashDebugPolicy(int32_t mode) {
    return transactCall(TRANSACTION_flashDebugPolicy, nullptr, mode);
}

Status BpDorvaNative::getStationInfo(const String16& ifname, const String16& peer, StationInfo* info) {
    android::Parcel reply;
    Status status = transactCall(TRANSACTION_getStationInfo, &reply, ifname, peer);
    if (!status.isOk()) return status;
    int32_t present = 0;
    if (reply.readInt32(&present) != android::OK || present == 0 || info->readFromParcel(&reply) != android::OK) {
        return Status::fromStatus(STATUS_BAD_VALUE);
    }
    return status;
}

Status BpDorvaNative::captureLogByRunCommand(const std::vector<String16>& actions, const std::vector<String16>& params,
                                             const String16& path, int32_t timeoutSeconds) {
    return transactCall(TRANSACTION_captureLogByRunCommand, nullptr, actions, params, path, timeoutSeconds);
}

Status BpDorvaNative::FactoryResetWipeRescuePartition() {
    return transactCall(TRANSACTION_FactoryResetWipeRescuePartition, nullptr);
}

}  // namespace dorva
}  // namespace nuvi
