#pragma once

#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>

#include "platform/binder/NdkBinder.h"

// A test ITarnisSsi that answers with what it received, so that a caller in
// another process can check the identity the service saw: the "echo" is a
// service-specific error whose message lists it. (The arguments of every
// method cross both ways in AidlAgreementTest.)
class EchoSsi : public aidl::velmar::system::tarnis::common::BnTarnisSsi {
public:
    static ndk::ScopedAStatus Echo(const std::string& text) {
        return ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(
            7, text + "|uid=" + std::to_string(AIBinder_getCallingUid()) +
                   "|pid=" + std::to_string(AIBinder_getCallingPid()));
    }

    ndk::ScopedAStatus reportSimpleEvent(int32_t type, const std::string& event) override {
        lastUid = AIBinder_getCallingUid();
        return event == "echo" ? Echo(std::to_string(type)) : ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportEventV2(const std::string&, const std::string&, const std::string&, bool) override {
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                const std::string& c) override {
        return Echo(a + b + c);
    }
    ndk::ScopedAStatus appCaptureLog(const std::string&, const std::string&, const std::string&,
                                     const std::string&) override {
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportEventsV2(const std::string&, const std::vector<std::string>&, const std::string&,
                                      bool) override {
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportTrelvoEvent(const std::string&, const std::string&, const std::string&,
                                         int32_t flags) override {
        return flags == 0 ? ndk::ScopedAStatus::ok() : ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
    }
    ndk::ScopedAStatus reportTrelvoEvents(const std::string&, const std::string&, const std::vector<std::string>&,
                                          int32_t) override {
        return ndk::ScopedAStatus::ok();
    }
    binder_status_t dump(int fd, const char** args, uint32_t numArgs) override {
        std::string out = "dump";
        for (uint32_t i = 0; i < numArgs; ++i) out += std::string(" ") + args[i];
        out += "\n";
        return write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? STATUS_OK
                                                                                    : STATUS_UNKNOWN_ERROR;
    }

    std::atomic<uid_t> lastUid{0};
};
