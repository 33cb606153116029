#pragma once

#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>

#include "platform/binder/NdkBinder.h"

// A test ITarnisSsi that answers with what it received, so that a caller in
// another process can check every argument and the identity the service saw:
// the "echo" is a service-specific error whose message lists them.
class EchoSsi : public aidl::velmar::system::tarnis::common::BnTarnisSsi {
public:
    static ndk::ScopedAStatus Echo(const std::string& text) {
        return ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(
            7, text + "|uid=" + std::to_string(AIBinder_getCallingUid()) +
                   "|pid=" + std::to_string(AIBinder_getCallingPid()));
    }
    static std::string Join(const std::vector<std::string>& list) {
        std::string out;
        for (const auto& s : list) out += "[" + s + "]";
        return out;
    }

    ndk::ScopedAStatus reportSimpleEvent(int32_t type, const std::string& event) override {
        calls++;
        lastUid = AIBinder_getCallingUid();
        if (event == "echo") return Echo(std::to_string(type));
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportEventV2(const std::string& a, const std::string& b, const std::string& c,
                                     bool flag) override {
        return Echo(a + "," + b + "," + c + "," + (flag ? "true" : "false"));
    }
    ndk::ScopedAStatus reportNativeFeatureEvent(const std::string& a, const std::string& b,
                                                const std::string& c) override {
        return Echo(a + b + c);
    }
    ndk::ScopedAStatus appCaptureLog(const std::string& a, const std::string& b, const std::string& c,
                                     const std::string& d) override {
        return Echo(a + b + c + d);
    }
    ndk::ScopedAStatus reportEventsV2(const std::string& a, const std::vector<std::string>& events,
                                      const std::string& c, bool flag) override {
        return Echo(a + Join(events) + c + (flag ? "1" : "0"));
    }
    ndk::ScopedAStatus reportTrelvoEvent(const std::string&, const std::string&, const std::string&,
                                         int32_t flags) override {
        return flags == 0 ? ndk::ScopedAStatus::ok() : ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
    }
    ndk::ScopedAStatus reportTrelvoEvents(const std::string& appId, const std::string& packageName,
                                          const std::vector<std::string>& payloads, int32_t flags) override {
        return Echo(appId + packageName + Join(payloads) + std::to_string(flags));
    }
    binder_status_t dump(int fd, const char** args, uint32_t numArgs) override {
        std::string out = "dump";
        for (uint32_t i = 0; i < numArgs; ++i) out += std::string(" ") + args[i];
        out += "\n";
        return write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? STATUS_OK
                                                                                    : STATUS_UNKNOWN_ERROR;
    }

    std::atomic<int> calls{0};
    std::atomic<uid_t> lastUid{0};
};
