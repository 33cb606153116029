#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <host/Host.h>

#include "platform/binder/BpBinder.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "tests/support/PlatChild.h"
#include "tests/support/TempDir.h"

namespace tarnis_test {

// A test ITarnisSsi that answers with what it received, so that a caller in
// another process can check the identity the service saw: the "echo" is a
// service-specific error whose message lists it. (The arguments of every
// method cross both ways in AidlAgreementTest.)
class EchoSsi : public aidl::velmar::system::tarnis::common::BnTarnisSsi {
public:
    using Status = ndk::ScopedAStatus;
    static Status Echo(const std::string& text) {
        const std::string who = "|uid=" + std::to_string(AIBinder_getCallingUid()) +
                                "|pid=" + std::to_string(AIBinder_getCallingPid());
        return Status::fromServiceSpecificErrorWithMessage(7, text + who);
    }

    Status reportSimpleEvent(int32_t type, const std::string& event) override {
        lastUid = AIBinder_getCallingUid();
        return event == "echo" ? Echo(std::to_string(type)) : Status::ok();
    }
    Status reportEventV2(const std::string&, const std::string&, const std::string&, bool) override { return {}; }
    Status reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c) override {
        return Echo(a + b + c);
    }
    Status appCaptureLog(const std::string&, const std::string&, const std::string&, const std::string&) override {
        return {};
    }
    Status reportEventsV2(const std::string&, const std::vector<std::string>&, const std::string&, bool) override {
        return {};
    }
    Status reportTrelvoEvent(const std::string&, const std::string&, const std::string&, int32_t) override {
        return {};
    }
    Status reportTrelvoEvents(const std::string&, const std::string&, const std::vector<std::string>&,
                              int32_t) override {
        return {};
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

// A sandbox root that a child dropped to another uid can reach, and proxy
// calls with a deadline: a service that never answers fails the test instead
// of holding it until ctest gives up.
class PlatBinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(root_.path().c_str(), 0755);
        platform::SetRoot(root_.path());
        android::BpBinder::SetCallTimeoutMs(PlatChild::kDeadlineMs);
    }
    void TearDown() override {
        android::ServiceManager::instance().removeAllServices();
        android::BpBinder::SetCallTimeoutMs(-1);
        platform::SetRoot("/");
    }
    // A proxy's binder over the socket, though the service is this process's.
    static android::sp<android::IBinder> Remote(const std::string& name) {
        return android::BpBinder::Connect(name, android::ServiceManager::SocketPath(name));
    }

    TempDir root_;
};

}  // namespace tarnis_test
