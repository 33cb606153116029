#pragma once

#include <nuvi/dorva/IDorvaNative.h>

namespace nuvi {
namespace dorva {

// The client side of IDorvaNative for a service in another process.
class BpDorvaNative : public android::BpInterface<IDorvaNative> {
public:
    explicit BpDorvaNative(const android::sp<android::IBinder>& remote) : android::BpInterface<IDorvaNative>(remote) {}

    android::binder::Status captureLog(const android::String16& type, const android::String16& headline,
                                       const std::vector<android::String16>& actions,
                                       const std::vector<android::String16>& params, bool offline, int32_t id,
                                       bool useId, const android::String16& where,
                                       const std::vector<android::String16>& files, bool isRecordInLocal) override;
    android::binder::Status attachSockFilter(const android::String16& srcMac, const android::String16& dstMac,
                                             int32_t srcAddr, int32_t dstAddr, int32_t protocol, int32_t srcPort,
                                             int32_t dstPort, const std::vector<uint8_t>& payload,
                                             int32_t extraLen, const android::String16& ifname,
                                             android::os::ParcelFileDescriptor* socket) override;
    android::binder::Status setCoreFilter(int32_t pid, bool enable) override;
    android::binder::Status runCommand(const android::String16& action, const android::String16& params,
                                       int32_t timeoutSeconds, int32_t* result) override;
    android::binder::Status startDefrag() override;
    android::binder::Status createFileInPersist(const android::String16& path, int32_t* result) override;
    android::binder::Status writeToPersistFile(const android::String16& path,
                                               const android::String16& content) override;
    android::binder::Status readFile(const android::String16& path, android::String16* content) override;
    android::binder::Status getFilesFromPersist(android::String16* list) override;
    android::binder::Status stopDefrag() override;
    android::binder::Status resumeDefrag() override;
    android::binder::Status flashDebugPolicy(int32_t mode) override;
    android::binder::Status getStationInfo(const android::String16& ifname, const android::String16& peer,
                                           StationInfo* info) override;
    android::binder::Status captureLogByRunCommand(const std::vector<android::String16>& actions,
                                                   const std::vector<android::String16>& params,
                                                   const android::String16& path, int32_t timeoutSeconds) override;
    android::binder::Status FactoryResetWipeRescuePartition() override;
};

}  // namespace dorva
}  // namespace nuvi
