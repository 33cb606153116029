#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>
#include <host/Host.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/BpBinder.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"
#include "platform/LogCapture.h"
#include "tests/support/TempDir.h"

using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
using aidl::vendor::velmar::hardware::kolto::common::ITarnisIntl;
using android::ServiceManager;

namespace {

// Remembers the last message; refuses the action "refuse".
template <typename Bn>
class Messages : public Bn {
public:
    ndk::ScopedAStatus transferMessage(const std::string& action, const std::string& json) override {
        last = action + "=" + json;
        if (action == "refuse") return ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-2, "no " + json);
        return ndk::ScopedAStatus::ok();
    }
    std::string last;
};

// A bare object whose call answers with a descriptor (as a socket-filter
// call returns its socket): the reply carries it back to the caller.
class PipeMaker : public ndk::ICInterface {
public:
    ndk::SpAIBinder asBinder() override { return localBinder("test.PipeMaker"); }
    bool isRemote() override { return false; }
    android::status_t onTransact(uint32_t, const android::Parcel&, android::Parcel* out) override {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return android::UNKNOWN_ERROR;
        android::base::unique_fd readEnd(fds[0]);
        if (write(fds[1], "from the service", 16) != 16) return android::UNKNOWN_ERROR;
        close(fds[1]);
        return out->writeUniqueFileDescriptor(std::move(readEnd));
    }
};

class ServiceManagerTest : public ::testing::Test {
protected:
    void SetUp() override { platform::SetRoot(root_.path()); }
    void TearDown() override {
        for (const auto& name : ServiceManager::instance().listServices()) {
            ServiceManager::instance().removeService(name);
        }
        platform::SetRoot("/");
    }
    static std::string Instance(const char* descriptor) { return std::string(descriptor) + "/default"; }
    tarnis_test::TempDir root_;
};

TEST_F(ServiceManagerTest, MessageInterfacesRoundTripThroughProxies) {
    ABinderProcess_startThreadPool();
    auto ssiIntl = ndk::SharedRefBase::make<Messages<aidl::velmar::system::tarnis::common::BnTarnisSsiIntl>>();
    auto vendor = ndk::SharedRefBase::make<Messages<aidl::vendor::velmar::hardware::kolto::common::BnTarnisIntl>>();
    const std::string intlName = Instance(ITarnisSsiIntl::descriptor);
    const std::string vendorName = Instance(ITarnisIntl::descriptor);
    ASSERT_EQ(AServiceManager_addService(ssiIntl->asBinder().get(), intlName.c_str()), STATUS_OK);
    ASSERT_EQ(AServiceManager_addService(vendor->asBinder().get(), vendorName.c_str()), STATUS_OK);
    std::vector<std::string> names = ServiceManager::instance().listServices();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{intlName, vendorName}));

    auto intlProxy = ITarnisSsiIntl::fromBinder(android::BpBinder::Connect(intlName, ServiceManager::SocketPath(intlName)));
    auto vendorProxy = ITarnisIntl::fromBinder(android::BpBinder::Connect(vendorName, ServiceManager::SocketPath(vendorName)));
    ASSERT_NE(intlProxy, nullptr);
    ASSERT_NE(vendorProxy, nullptr);
    EXPECT_TRUE(intlProxy->transferMessage("velmar.intent.action.X", R"({"k":"\u00e9"})").isOk());
    EXPECT_EQ(ssiIntl->last, R"(velmar.intent.action.X={"k":"\u00e9"})");
    auto refused = vendorProxy->transferMessage("refuse", "{}");
    EXPECT_EQ(refused.getServiceSpecificError(), -2);
    EXPECT_EQ(refused.getMessage(), "no {}");
    EXPECT_EQ(vendor->last, "refuse={}");
    // Same shape, different descriptor: one interface is never taken for the other.
    EXPECT_EQ(ITarnisIntl::fromBinder(intlProxy->asBinder()), nullptr);
    EXPECT_EQ(ITarnisIntl::fromBinder(ssiIntl->asBinder()), nullptr);

    // Withdrawn: new clients find nothing, the name is free again.
    EXPECT_TRUE(ServiceManager::instance().removeService(vendorName));
    EXPECT_EQ(AServiceManager_checkService(vendorName.c_str()), nullptr);
    EXPECT_FALSE(AServiceManager_isDeclared(vendorName.c_str()));
}

TEST_F(ServiceManagerTest, DescriptorsComeBackInReplies) {
    ABinderProcess_startThreadPool();
    auto maker = ndk::SharedRefBase::make<PipeMaker>();
    ASSERT_EQ(AServiceManager_addService(maker->asBinder().get(), "test.PipeMaker"), STATUS_OK);
    auto proxy = android::BpBinder::Connect("test.PipeMaker", ServiceManager::SocketPath("test.PipeMaker"));
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->getInterfaceDescriptor(), android::String16(u"test.PipeMaker"));
    android::Parcel in, reply;
    ASSERT_EQ(proxy->transact(FIRST_CALL_TRANSACTION, in, &reply), android::OK);
    android::base::unique_fd fd;
    ASSERT_EQ(reply.readUniqueFileDescriptor(&fd), android::OK);
    ASSERT_TRUE(fd.ok());
    EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);  // never leaks into our children
    char buf[32] = {};
    ASSERT_EQ(read(fd.get(), buf, sizeof(buf)), 16);
    EXPECT_STREQ(buf, "from the service");
}

TEST_F(ServiceManagerTest, RegistrationRulesAndAwkwardPlaces) {
    platform::LogCapture capture;
    auto svc = ndk::SharedRefBase::make<Messages<aidl::velmar::system::tarnis::common::BnTarnisSsiIntl>>();
    EXPECT_EQ(AServiceManager_addService(svc->asBinder().get(), ""), STATUS_BAD_VALUE);
    EXPECT_EQ(AServiceManager_addService(nullptr, "x"), STATUS_UNEXPECTED_NULL);

    // A stale socket of a dead server is replaced.
    const std::string name = Instance(ITarnisSsiIntl::descriptor);
    ASSERT_EQ(mkdir(root_.Sub("dev").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(root_.Sub("dev/binder").c_str(), 0755), 0);
    {
        android::base::unique_fd dead = android::WireIo::Bind(ServiceManager::SocketPath(name));
        ASSERT_TRUE(dead.ok());
    }
    EXPECT_EQ(AServiceManager_checkService(name.c_str()), nullptr);
    EXPECT_EQ(AServiceManager_addService(svc->asBinder().get(), name.c_str()), STATUS_OK);

    // A proxy cannot be registered from here: it is someone else's object.
    ABinderProcess_startThreadPool();
    auto proxy = android::BpBinder::Connect(name, ServiceManager::SocketPath(name));
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(AServiceManager_addService(proxy.get(), "copy"), STATUS_INVALID_OPERATION);

    // A commented manifest line declares nothing; a plain one does.
    ASSERT_EQ(system(("mkdir -p " + root_.Sub("system/etc/vintf")).c_str()), 0);
    tarnis_test::WriteFile(root_.Sub("system/etc/vintf/manifest.txt"), "# a.b/default\nc.d/default # running soon\n");
    EXPECT_FALSE(AServiceManager_isDeclared("a.b/default"));
    EXPECT_TRUE(AServiceManager_isDeclared("c.d/default"));

    // A root too deep for a socket address still works.
    std::string deep = root_.path();
    for (int i = 0; i < 6; ++i) deep += "/a-rather-long-directory-name";
    ASSERT_EQ(system(("mkdir -p " + deep).c_str()), 0);
    platform::SetRoot(deep);
    ASSERT_GT(ServiceManager::SocketPath(name).size(), 108u);
    ASSERT_EQ(AServiceManager_addService(svc->asBinder().get(), name.c_str()), STATUS_OK);
    auto deepProxy = ITarnisSsiIntl::fromBinder(android::BpBinder::Connect(name, ServiceManager::SocketPath(name)));
    ASSERT_NE(deepProxy, nullptr);
    EXPECT_TRUE(deepProxy->transferMessage("deep", "1").isOk());
    EXPECT_EQ(svc->last, "deep=1");
    ServiceManager::instance().removeService(name);
    platform::SetRoot(root_.path());
}

}  // namespace
