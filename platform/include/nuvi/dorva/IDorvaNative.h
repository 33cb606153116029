#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <binder/IInterface.h>
#include <binder/ParcelFileDescriptor.h>
#include <binder/Status.h>
#include <nuvi/dorva/StationInfo.h>
#include <utils/String16.h>

// The native daemon service's interface, in the platform's classic spelling:
// UTF-16 strings, binder::Status results, out-parameters as pointers.
// Transaction codes follow the declaration order from FIRST_CALL_TRANSACTION;
// the three argument-less methods are kept in their slots for callers built
// against the full interface, and do nothing.
namespace nuvi {
namespace dorva {

class IDorvaNative : public android::IInterface {
public:
    static constexpr const char* descriptor = "nuvi.dorva.IDorvaNative";

    enum : uint32_t {
        TRANSACTION_captureLog = FIRST_CALL_TRANSACTION + 0,
        TRANSACTION_attachSockFilter = FIRST_CALL_TRANSACTION + 1,
        TRANSACTION_setCoreFilter = FIRST_CALL_TRANSACTION + 2,
        TRANSACTION_runCommand = FIRST_CALL_TRANSACTION + 3,
        TRANSACTION_startDefrag = FIRST_CALL_TRANSACTION + 4,
        TRANSACTION_createFileInPersist = FIRST_CALL_TRANSACTION + 5,
        TRANSACTION_writeToPersistFile = FIRST_CALL_TRANSACTION + 6,
        TRANSACTION_readFile = FIRST_CALL_TRANSACTION + 7,
        TRANSACTION_getFilesFromPersist = FIRST_CALL_TRANSACTION + 8,
        TRANSACTION_stopDefrag = FIRST_CALL_TRANSACTION + 9,
        TRANSACTION_resumeDefrag = FIRST_CALL_TRANSACTION + 10,
        TRANSACTION_flashDebugPolicy = FIRST_CALL_TRANSACTION + 11,
        TRANSACTION_getStationInfo = FIRST_CALL_TRANSACTION + 12,
        TRANSACTION_captureLogByRunCommand = FIRST_CALL_TRANSACTION + 13,
        TRANSACTION_FactoryResetWipeRescuePartition = FIRST_CALL_TRANSACTION + 14,
    };
    // The method of each code, in the same order (the caller policy names them).
    static constexpr const char* kTransactionNames[] = {
        "captureLog", "attachSockFilter", "setCoreFilter", "runCommand", "startDefrag", "createFileInPersist",
        "writeToPersistFile", "readFile", "getFilesFromPersist", "stopDefrag", "resumeDefrag",
        "flashDebugPolicy", "getStationInfo", "captureLogByRunCommand", "FactoryResetWipeRescuePartition",
    };

    // The implementation itself for a local binder, a proxy for a remote one,
    // null for a binder of another interface.
    static std::shared_ptr<IDorvaNative> asInterface(const android::sp<android::IBinder>& binder);
    // The name the service is registered under.
    static const android::String16& getInterfaceDescriptor();

    virtual android::binder::Status captureLog(const android::String16& type, const android::String16& headline,
                                               const std::vector<android::String16>& actions,
                                               const std::vector<android::String16>& params, bool offline,
                                               int32_t id, bool useId, const android::String16& where,
                                               const std::vector<android::String16>& files,
                                               bool isRecordInLocal) = 0;
    virtual android::binder::Status attachSockFilter(const android::String16& srcMac,
                                                     const android::String16& dstMac, int32_t srcAddr,
                                                     int32_t dstAddr, int32_t protocol, int32_t srcPort,
                                                     int32_t dstPort, const std::vector<uint8_t>& payload,
                                                     int32_t extraLen, const android::String16& ifname,
                                                     android::os::ParcelFileDescriptor* socket) = 0;
    virtual android::binder::Status setCoreFilter(int32_t pid, bool enable) = 0;
    virtual android::binder::Status runCommand(const android::String16& action, const android::String16& params,
                                               int32_t timeoutSeconds, int32_t* result) = 0;
    virtual android::binder::Status startDefrag() = 0;
    virtual android::binder::Status createFileInPersist(const android::String16& path, int32_t* result) = 0;
    virtual android::binder::Status writeToPersistFile(const android::String16& path,
                                                       const android::String16& content) = 0;
    virtual android::binder::Status readFile(const android::String16& path, android::String16* content) = 0;
    virtual android::binder::Status getFilesFromPersist(android::String16* list) = 0;
    virtual android::binder::Status stopDefrag() = 0;
    virtual android::binder::Status resumeDefrag() = 0;
    virtual android::binder::Status flashDebugPolicy(int32_t mode) = 0;
    virtual android::binder::Status getStationInfo(const android::String16& ifname, const android::String16& peer,
                                                   StationInfo* info) = 0;
    virtual android::binder::Status captureLogByRunCommand(const std::vector<android::String16>& actions,
                                                           const std::vector<android::String16>& params,
                                                           const android::String16& path,
                                                           int32_t timeoutSeconds) = 0;
    virtual android::binder::Status FactoryResetWipeRescuePartition() = 0;
};

}  // namespace dorva
}  // namespace nuvi
