#pragma once

#include <nuvi/dorva/BnDorvaNative.h>

namespace android {

// The daemon's classic service: captures, whitelisted tools, persist files,
// debug policy, core-dump filters, packet filters, Wi-Fi station statistics
// and the rescue wipe for the system's privileged clients. Each method adapts
// the binder arguments (UTF-16) and calls the capture code or a worker made
// for the call; the object keeps no state, so calls run side by side on the
// binder threads without a lock.
class DorvaNativeDaemon : public nuvi::dorva::BnDorvaNative {
public:
    // The shell user (AID_SHELL): refused the methods that run tools.
    static constexpr uid_t kShellUid = 2000;

    binder::Status captureLog(const String16& type, const String16& headline, const std::vector<String16>& actions,
                              const std::vector<String16>& params, bool offline, int32_t id, bool useId,
                              const String16& where, const std::vector<String16>& files,
                              bool isRecordInLocal) override;
    binder::Status attachSockFilter(const String16& srcMac, const String16& dstMac, int32_t srcAddr, int32_t dstAddr,
                                    int32_t protocol, int32_t srcPort, int32_t dstPort,
                                    const std::vector<uint8_t>& payload, int32_t extraLen, const String16& ifname,
                                    std::unique_ptr<os::ParcelFileDescriptor>* socket) override;
    binder::Status setCoreFilter(int32_t pid, bool enable) override;
    binder::Status runCommand(const String16& action, const String16& params, int32_t timeoutSeconds,
                              int32_t* result) override;
    binder::Status startDefrag() override;
    binder::Status createFileInPersist(const String16& path, int32_t* result) override;
    binder::Status writeToPersistFile(const String16& path, const String16& content) override;
    binder::Status readFile(const String16& path, String16* content) override;
    binder::Status getFilesFromPersist(String16* list) override;
    binder::Status stopDefrag() override;
    binder::Status resumeDefrag() override;
    binder::Status flashDebugPolicy(int32_t mode) override;
    binder::Status getStationInfo(const String16& ifname, const String16& peer,
                                  nuvi::dorva::StationInfo* info) override;
    binder::Status captureLogByRunCommand(const std::vector<String16>& actions, const std::vector<String16>& params,
                                          const String16& path, int32_t timeoutSeconds) override;
    binder::Status FactoryResetWipeRescuePartition() override;
};

}  // namespace android
