// The service registry and the transport between processes: what a client finds, what the server refuses.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <log/log.h>

#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>
#include <host/Host.h>
#include <nuvi/dorva/IDorvaNative.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/WireIo.h"
#include "platform/LogCapture.h"
#include "tests/support/PlatBinder.h"

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
using aidl::vendor::velmar::hardware::kolto::common::ITarnisIntl;
using android::ServiceManager;
using android::WireHeader;
using android::WireIo;
using android::base::unique_fd;
using tarnis_test::EchoSsi;
using tarnis_test::PlatChild;

namespace {

const std::string kSsiName = std::string(ITarnisSsi::descriptor) + "/default";

class TransportTest : public tarnis_test::PlatBinderTest {
protected:
    void Write(const std::string& relative, const std::string& content) {
        const std::string path = root_.Sub(relative);
        ASSERT_EQ(system(("mkdir -p " + path.substr(0, path.rfind('/'))).c_str()), 0);
        ASSERT_TRUE(tarnis_test::WriteFile(path, content));
    }
    // An EchoSsi under kSsiName, served by few threads, so that a connection that held one would starve the rest.
    static std::shared_ptr<EchoSsi> Serve() {
        auto impl = ndk::SharedRefBase::make<EchoSsi>();
        EXPECT_EQ(AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()), STATUS_OK);
        android::BinderProcess::self().setMaxThreads(2);
        ABinderProcess_startThreadPool();
        return impl;
    }
};

TEST_F(TransportTest, SocketNamesEncodeEveryByteReversibly) {
    EXPECT_EQ(ServiceManager::EncodeName(kSsiName), "velmar.system.tarnis.common.ITarnisSsi%2Fdefault");
    EXPECT_EQ(ServiceManager::EncodeName("../x y"), "%2E.%2Fx%20y");
    for (std::string name : {kSsiName, std::string("../evil/\n\xff"), std::string("a%2F")}) {
        EXPECT_EQ(ServiceManager::DecodeName(ServiceManager::EncodeName(name)), name);
        EXPECT_EQ(ServiceManager::EncodeName(name).find('/'), std::string::npos);
    }
    const std::string longName(300, 'n');
    EXPECT_LE(ServiceManager::EncodeName(longName).size(), 100u);
    EXPECT_NE(ServiceManager::EncodeName(longName), ServiceManager::EncodeName(longName + "x"));
}

// What only a server in another process shows: a foreign interface, its death.
// (The caller's identity is echoed in GarbageAndOversize..., over the same socket.)
TEST_F(TransportTest, RemoteServersAreAwaitedCheckedAndMournedAsDead) {
    Write("vendor/etc/vintf/manifest.txt", "# instances\n  " + kSsiName + "  \n");
    PlatChild server(PlatChild::kSameUid, [&](PlatChild&) {
        usleep(100 * 1000);  // the server appears only after the client has started waiting
        auto impl = ndk::SharedRefBase::make<EchoSsi>();
        if (AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()) != STATUS_OK) return 3;
        ABinderProcess_joinThreadPool();
        return 4;
    });
    ndk::SpAIBinder binder = ServiceManager::instance().waitForService(kSsiName, 5000);
    std::shared_ptr<ITarnisSsi> ssi = ITarnisSsi::fromBinder(binder);
    ASSERT_NE(ssi, nullptr);
    // Same shape, different descriptor: one interface is never taken for another.
    EXPECT_EQ(ITarnisSsiIntl::fromBinder(binder), nullptr);
    // A classic cast asks the remote nothing, as libbinder's: the service refuses the call's foreign token.
    auto wrong = nuvi::dorva::IDorvaNative::asInterface(binder);
    ASSERT_NE(wrong, nullptr);
    EXPECT_EQ(wrong->setCoreFilter(1, true).transactionError(), android::BAD_TYPE);
    EXPECT_TRUE(ssi->reportSimpleEvent(1, "quiet").isOk());

    // A dead server is a transport failure, not a hang.
    kill(server.pid(), SIGKILL);
    EXPECT_EQ(server.Exit(), -1);
    EXPECT_EQ(ssi->reportSimpleEvent(1, "quiet").getStatus(), STATUS_DEAD_OBJECT);
    // Its socket stays behind, found by nobody, and a new server replaces it.
    EXPECT_EQ(AServiceManager_checkService(kSsiName.c_str()), nullptr);
    auto impl = ndk::SharedRefBase::make<EchoSsi>();
    EXPECT_EQ(AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()), STATUS_OK);
}

TEST_F(TransportTest, InProcessCallersGetTheLocalObject) {
    auto impl = ndk::SharedRefBase::make<EchoSsi>();
    ASSERT_EQ(AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()), STATUS_OK);
    EXPECT_TRUE(AServiceManager_isDeclared(kSsiName.c_str()));
    for (ndk::SpAIBinder binder : {AServiceManager_checkService(kSsiName.c_str()),
                                   AServiceManager_waitForService(kSsiName.c_str())}) {
        ASSERT_NE(binder, nullptr);
        EXPECT_EQ(ITarnisSsi::fromBinder(binder).get(), impl.get());
        EXPECT_EQ(ITarnisSsiIntl::fromBinder(binder), nullptr);
    }
    // A local call runs on our thread, as ourselves.
    impl->reportSimpleEvent(0, "quiet");
    EXPECT_EQ(impl->lastUid.load(), getuid());
    // Withdrawn: new clients find nothing, the name is free again.
    EXPECT_TRUE(ServiceManager::instance().removeService(kSsiName));
    EXPECT_EQ(AServiceManager_checkService(kSsiName.c_str()), nullptr);
    EXPECT_FALSE(AServiceManager_isDeclared(kSsiName.c_str()));
}

TEST_F(TransportTest, UndeclaredIsEmptyAtOnceDeclaredWaitsItsTime) {
    std::string vendorName = std::string(ITarnisIntl::descriptor) + "/default";
    EXPECT_FALSE(AServiceManager_isDeclared(vendorName.c_str()));
    // In a child, so that a wait that never ends fails the test within a second.
    PlatChild waiter(PlatChild::kSameUid, [&](PlatChild&) {
        return AServiceManager_waitForService(vendorName.c_str()) == nullptr ? 0 : 1;
    });
    EXPECT_EQ(waiter.Exit(1000), 0);

    // A commented manifest line declares nothing; a plain one does.
    Write("vendor/etc/vintf/manifest.txt", "# " + vendorName + "\n" + kSsiName + " # running soon\n");
    EXPECT_FALSE(AServiceManager_isDeclared(vendorName.c_str()));
    EXPECT_TRUE(AServiceManager_isDeclared(kSsiName.c_str()));
    EXPECT_EQ(AServiceManager_checkService(kSsiName.c_str()), nullptr);
    // Declared, not running: the wait ends at its deadline.
    EXPECT_EQ(ServiceManager::instance().waitForService(kSsiName, 50), nullptr);
}

TEST_F(TransportTest, RegistrationRulesAndAwkwardPlaces) {
    auto svc = ndk::SharedRefBase::make<EchoSsi>();
    EXPECT_EQ(AServiceManager_addService(svc->asBinder().get(), ""), STATUS_BAD_VALUE);
    EXPECT_EQ(AServiceManager_addService(nullptr, "x"), STATUS_UNEXPECTED_NULL);
    EXPECT_EQ(AServiceManager_addService(svc->asBinder().get(), kSsiName.c_str()), STATUS_OK);

    // A proxy cannot be registered from here: it is someone else's object.
    ABinderProcess_startThreadPool();
    EXPECT_EQ(AServiceManager_addService(Remote(kSsiName).get(), "copy"), STATUS_INVALID_OPERATION);

    // A root too deep for a socket address still works.
    std::string deep = root_.path();
    for (int i = 0; i < 6; ++i) deep += "/a-rather-long-directory-name";
    ASSERT_EQ(system(("mkdir -p " + deep).c_str()), 0);
    platform::SetRoot(deep);
    ASSERT_GT(ServiceManager::SocketPath(kSsiName).size(), 108u);
    ASSERT_EQ(AServiceManager_addService(svc->asBinder().get(), kSsiName.c_str()), STATUS_OK);
    auto deepProxy = ITarnisSsi::fromBinder(Remote(kSsiName));
    ASSERT_NE(deepProxy, nullptr);
    EXPECT_TRUE(deepProxy->reportSimpleEvent(1, "quiet").isOk());
}

// (Stalled clients are HostileClientTest's: there another uid is served while they hang on.)
TEST_F(TransportTest, GarbageAndOversizeAreRefusedWithoutDisturbingOtherCallers) {
    platform::LogCapture capture;
    Serve();
    const std::string path = ServiceManager::SocketPath(kSsiName);
    unique_fd garbage = WireIo::Connect(path);
    const char junk[] = "GET / HTTP/1.0\r\n\r\n";
    ASSERT_EQ(write(garbage.get(), junk, sizeof(junk)), static_cast<ssize_t>(sizeof(junk)));
    unique_fd oversized = WireIo::Connect(path);
    const WireHeader huge{WireIo::kRequestMagic, FIRST_CALL_TRANSACTION, 2 * 1024 * 1024, 0};
    ASSERT_EQ(write(oversized.get(), &huge, sizeof(huge)), static_cast<ssize_t>(sizeof(huge)));

    // A proxy (not the local object) calls through meanwhile.
    auto proxy = ITarnisSsi::fromBinder(Remote(kSsiName));
    ASSERT_NE(proxy, nullptr);
    const auto echo = proxy->reportSimpleEvent(3, "echo");
    EXPECT_EQ(echo.getServiceSpecificError(), 7);
    EXPECT_EQ(echo.getMessage(), "3|uid=" + std::to_string(getuid()) + "|pid=" + std::to_string(getpid()));

    EXPECT_TRUE(tarnis_test::Ended(garbage, PlatChild::kDeadlineMs));
    EXPECT_TRUE(tarnis_test::Ended(oversized, PlatChild::kDeadlineMs));
    EXPECT_TRUE(capture.Contains("malformed transaction (bad header)", "", ANDROID_LOG_ERROR));
    EXPECT_TRUE(capture.Contains("transaction of 2097152 bytes exceeds the limit of 1048576 bytes", "",
                                 ANDROID_LOG_ERROR));
    EXPECT_TRUE(capture.Contains("binder: closing connection from pid " + std::to_string(getpid())));
    // A wrong transaction code is refused; the connection survives.
    android::Parcel in, reply;
    in.writeInterfaceToken(android::String16(ITarnisSsi::descriptor));
    EXPECT_EQ(proxy->asBinder()->transact(FIRST_CALL_TRANSACTION + 99, in, &reply), STATUS_UNKNOWN_TRANSACTION);
    EXPECT_TRUE(proxy->reportSimpleEvent(1, "quiet").isOk());
}

// Threads sharing one proxy each get their own reply.
TEST_F(TransportTest, ConcurrentCallersAreServedInParallel) {
    Serve();
    auto proxy = ITarnisSsi::fromBinder(Remote(kSsiName));
    ASSERT_NE(proxy, nullptr);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (int call = t * 1000; call < t * 1000 + 100; ++call) {
                const std::string told = proxy->reportSimpleEvent(call, "echo").getMessage();
                failures += told.rfind(std::to_string(call) + "|", 0) != 0;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
}

// The caller is the uid the kernel reports for the peer; the policy below the root decides who may call what.
TEST_F(TransportTest, CallingUidIsThePeersCredentialAndThePolicyDecidesWhoMayCall) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to call as another uid";
    auto impl = Serve();
    // What a child of uid 2000 gets from a report or a dump: "0", the exception and message, or the status.
    auto callAs2000 = [&](bool dump) {
        PlatChild child(2000, [&](PlatChild& parent) {
            auto ssi = ITarnisSsi::fromBinder(AServiceManager_checkService(kSsiName.c_str()));
            if (ssi == nullptr) return 3;
            // The dump's output comes down the same channel, ahead of the verdict.
            ndk::ScopedAStatus st = dump ? ndk::ScopedAStatus::fromStatus(ssi->dump(parent.fd(), nullptr, 0))
                                         : ssi->reportSimpleEvent(0, "quiet");
            return parent.Tell(st.isOk() ? "0"
                               : dump    ? std::to_string(st.getStatus())
                                         : std::to_string(st.getExceptionCode()) + " " + st.getMessage())
                       ? 0
                       : 5;
        });
        const std::string said = child.HearAll();
        const int code = child.Exit();
        return code == 0 ? said.substr(said.rfind('\n') + 1) : "exit " + std::to_string(code);
    };
    // Without a policy file, reports and the dump are open to every uid.
    EXPECT_EQ(callAs2000(false), "0");
    EXPECT_EQ(impl->lastUid.load(), 2000u);
    EXPECT_EQ(callAs2000(true), "0");

    platform::LogCapture log;
    const std::string policy = root_.Sub("system/etc/tarnis/caller_policy.conf");
    Write("system/etc/tarnis/caller_policy.conf", "# reports for root and ourselves only\n"
                                                  "velmar.system.tarnis.common.ITarnisSsi.* 0,self  # trailing note\n"
                                                  "velmar.system.tarnis.common.ITarnisSsi.dump 2000\n"
                                                  "velmar.system.tarnis.common.ITarnisSsi.dump *,x\n"
                                                  "nuvi.dorva.IDorvaNative.captureLog\n"
                                                  "ITarnisSsi 2000\n"
                                                  "a.b.reportSimpleEvent 2000 1000\n");
    EXPECT_EQ(callAs2000(false), "-1 permission denied: uid 2000 may not call reportSimpleEvent");
    EXPECT_EQ(callAs2000(true), "0");  // the dump's own line wins over the service's "*"
    EXPECT_TRUE(log.Contains("binder: permission denied: uid 2000 (pid ", "", ANDROID_LOG_WARN));
    // Each malformed line is named and skipped; the others hold.
    EXPECT_TRUE(log.Contains(policy + ":4: \"x\" is not a uid, \"self\" or \"*\"; line skipped", "",
                             ANDROID_LOG_ERROR));
    EXPECT_TRUE(log.Contains(policy + ":6: \"ITarnisSsi\" is not DESCRIPTOR.METHOD or DESCRIPTOR.*; line skipped"));
    EXPECT_EQ(log.Count("line skipped"), 4u);

    // Edited, it is read again: the dump is now root's alone.
    ASSERT_TRUE(tarnis_test::WriteFile(policy, "velmar.system.tarnis.common.ITarnisSsi.dump 0\n"));
    EXPECT_EQ(callAs2000(true), std::to_string(android::PERMISSION_DENIED));
    EXPECT_EQ(callAs2000(false), "0");
    EXPECT_TRUE(log.Contains(") may not call velmar.system.tarnis.common.ITarnisSsi.dump"));
}

}  // namespace
