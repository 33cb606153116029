// The binder stand-in: the registry and the transport between processes, clients that misbehave (they may not
// take the server down, hold its threads, lock others out or leak its descriptors), parcels and their frames,
// and the agreement of the hand-written NDK-backend classes with the generated C++ ones.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>
#include <android-base/logging.h>
#include <binder/ParcelFileDescriptor.h>
#include <gtest/gtest.h>
#include <host/Host.h>
#include <log/log.h>
#include <nuvi/dorva/IDorvaNative.h>
#include <velmar/system/tarnis/common/BnTarnisSsi.h>
#include <velmar/system/tarnis/common/BnTarnisSsiIntl.h>
#include <vendor/velmar/hardware/kolto/common/BnKoltoImpl.h>
#include <vendor/velmar/hardware/kolto/common/BnTarnisIntl.h>

#include "platform/LogCapture.h"
#include "platform/binder/BinderProcess.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireDecoder.h"
#include "platform/binder/WireIo.h"
#include "tests/support/PlatBinder.h"
#include "tests/support/ProcessCounts.h"

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
using aidl::vendor::velmar::hardware::kolto::common::ITarnisIntl;
using android::BinderProcess;
using android::BpBinder;
using android::Parcel;
using android::ServiceManager;
using android::String16;
using android::WireHeader;
using android::WireIo;
using android::base::unique_fd;
using tarnis_test::EchoSsi;
using tarnis_test::Ended;
using tarnis_test::PlatChild;
using tarnis_test::ProcessCounts;
using tarnis_test::WaitFor;
namespace ndk_ssi = aidl::velmar::system::tarnis::common;
namespace ndk_kolto = aidl::vendor::velmar::hardware::kolto::common;
namespace cpp_ssi = velmar::system::tarnis::common;
namespace cpp_kolto = vendor::velmar::hardware::kolto::common;
using android::WireDecoder;
using android::WireMessage;
using android::binder::Status;

namespace {
const std::string kSsiName = std::string(ITarnisSsi::descriptor) + "/default";

class TransportTest : public tarnis_test::PlatBinderTest {
protected:
    void Write(const std::string& relative, const std::string& content) {
        const std::string path = root_.Sub(relative);
        ASSERT_EQ(system(("mkdir -p " + path.substr(0, path.rfind('/'))).c_str()), 0);
        ASSERT_TRUE(tarnis_test::WriteFile(path, content));
    }
    // Two threads, one uid's share: a client that held one for good would starve everybody else at once.
    static std::shared_ptr<EchoSsi> Serve() {
        auto impl = ndk::SharedRefBase::make<EchoSsi>();
        EXPECT_EQ(AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()), STATUS_OK);
        BinderProcess::self().setMaxThreads(2);
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
    Serve();
}

TEST_F(TransportTest, InProcessCallersGetTheLocalObject) {
    auto impl = Serve();
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
    auto svc = Serve();
    EXPECT_EQ(AServiceManager_addService(svc->asBinder().get(), ""), STATUS_BAD_VALUE);
    EXPECT_EQ(AServiceManager_addService(nullptr, "x"), STATUS_UNEXPECTED_NULL);
    // A proxy cannot be registered from here: it is someone else's object.
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

    EXPECT_TRUE(Ended(garbage, PlatChild::kDeadlineMs));
    EXPECT_TRUE(Ended(oversized, PlatChild::kDeadlineMs));
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
            // A thread stops at its first wrong answer: a server that no longer answers costs one call's time-out.
            for (int call = t * 1000; call < t * 1000 + 100 && failures == 0; ++call) {
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

constexpr uid_t kShellUid = 2000;
// Generous, for a loaded machine: only a failing test waits this long.
constexpr int kConnectMs = 10000;
constexpr std::chrono::seconds kDeadline(30);

// The server logs after it has acted: a line may come just after what it tells of.
bool AwaitLine(const platform::LogCapture& capture, const std::string& text, int prio = 0) {
    return WaitFor([&] { return capture.Contains(text, "", prio); }, kDeadline);
}

bool Served(const std::string& path) {
    auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kSsiName, path));
    return ssi != nullptr && ssi->reportSimpleEvent(0, "quiet").isOk();
}

// A served EchoSsi and a proxy of it, which the cases below must not disturb.
class HostileClientTest : public TransportTest {
protected:
    void SetUp() override {
        TransportTest::SetUp();
        impl_ = Serve();
        SetTimeouts(60000, 60000);
        path_ = ServiceManager::SocketPath(kSsiName);
        proxy_ = ITarnisSsi::fromBinder(BpBinder::Connect(kSsiName, path_));
        ASSERT_NE(proxy_, nullptr);
        ASSERT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
        before_ = ProcessCounts::Of();
    }
    void TearDown() override {
        proxy_.reset();
        // The proxy's pooled connection and the server's end of it go away with it.
        EXPECT_TRUE(ProcessCounts::Await({before_.fds - 2, before_.threads}))
            << "before: " << before_.ToString() << ", after: " << ProcessCounts::Of().ToString();
        BinderProcess::self().setTimeouts(BinderProcess::Timeouts());
        TransportTest::TearDown();
    }
    size_t Connections() { return BinderProcess::self().usage(path_).connections; }
    size_t Buffered() { return BinderProcess::self().usage(path_).bufferedBytes; }
    bool AwaitConnections(size_t n) { return WaitFor([&] { return Connections() == n; }, kDeadline); }
    // Dumps wait long enough for another uid's call to be served meanwhile, on a loaded machine too.
    static void SetTimeouts(int idleMs, int stalledMs) { BinderProcess::self().setTimeouts({idleMs, stalledMs, 3000}); }
    int CallAs(uid_t uid) { return PlatChild(uid, [&](PlatChild&) { return Served(path_) ? 0 : 1; }).Exit(); }
    // "dump \xc3\xa9\n": 8 bytes, the argument having crossed as UTF-16 and back.
    binder_status_t Dump(int fd) {
        const char* args[] = {"\xc3\xa9"};
        return AIBinder_dump(proxy_->asBinder().get(), fd, args, 1);
    }

    platform::LogCapture capture_;
    std::shared_ptr<EchoSsi> impl_;
    std::string path_;
    std::shared_ptr<ITarnisSsi> proxy_;
    ProcessCounts before_;
};

TEST_F(HostileClientTest, ADumpWhoseReaderIsGoneOrStuckEndsWithAnErrorLineWhileOtherUidsAreServed) {
    // Not ignored: a send to a socket without a reader would kill this process if the relay let SIGPIPE through.
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    close(fds[0]);
    EXPECT_EQ(Dump(fds[1]), android::DEAD_OBJECT);
    close(fds[1]);
    const std::string who = " for pid " + std::to_string(getpid()) + " uid " + std::to_string(getuid());
    EXPECT_EQ(capture_.Count("binder: dump of " + std::string(ITarnisSsi::descriptor) + who +
                                 ": the reader went away after 0 of 8 bytes", "", ANDROID_LOG_ERROR), 1u);
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());  // the thread is back in the pool

    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root to call as another uid";
    // Two stuck dumps from this uid, more than its share of the pool, each into a full pipe nobody reads.
    int pipes[2][2];
    for (auto& fds : pipes) {
        ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
        const std::string block(65536, 'x');
        while (write(fds[1], block.data(), block.size()) > 0) {
        }
        fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) & ~O_NONBLOCK);
    }
    std::future<binder_status_t> dumps[2];
    for (int i = 0; i < 2; ++i) dumps[i] = std::async(std::launch::async, [&, i] { return Dump(pipes[i][1]); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // both dumps under way
    EXPECT_EQ(CallAs(kShellUid), 0);
    for (auto& dump : dumps) EXPECT_EQ(dump.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    for (auto& dump : dumps) EXPECT_EQ(dump.get(), android::TIMED_OUT);
    EXPECT_EQ(capture_.Count("the output was not drained within 3000 ms; gave up after 0 of 8 bytes", "",
                             ANDROID_LOG_ERROR), 2u);
    for (auto& fds : pipes) {
        close(fds[0]);
        close(fds[1]);
    }
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());  // both threads are back
}

// A leaking uid (most callers of a phone share one) evicts its own idle connections and never locks others out.
TEST_F(HostileClientTest, IdleConnectionsOfOneUidNeitherLockOthersOutNorLast) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root to call as another uid";
    const auto start = std::chrono::steady_clock::now();
    const size_t share = BinderProcess::kMaxConnections / BinderProcess::kUidShareDivisor;
    const size_t total = share + 144;
    PlatChild holder(kShellUid, [&](PlatChild& parent) {
        std::vector<unique_fd> held;
        for (size_t i = 0; i < total; ++i) held.push_back(WireIo::Connect(path_, kConnectMs));
        // The first ones made room for the last, which all stay.
        for (size_t i = 0; i < total; ++i) {
            const bool evicted = i < total - share;
            if (!held[i].ok() || Ended(held[i], evicted ? kConnectMs : 0) != evicted) return 2;
        }
        // A proxy of the same uid is served; the oldest idle one went for it.
        if (!Served(path_)) return 3;
        if (!Ended(held[total - share], kConnectMs)) return 4;
        // All busy (half a transaction each): a newcomer is refused; the proxy's was not idle till a thread closed it.
        if (!parent.Say('p') || parent.Hear() != 'g') return 5;
        held.push_back(WireIo::Connect(path_, kConnectMs));
        const WireHeader header{WireIo::kRequestMagic, FIRST_CALL_TRANSACTION, 64, 0};
        for (size_t i = total - share + 1; i <= total; ++i) {
            if (send(held[i].get(), &header, sizeof(header), MSG_NOSIGNAL) != sizeof(header)) return 6;
        }
        unique_fd refused = WireIo::Connect(path_, kConnectMs);
        uint32_t status = 0;
        android::Parcel reply;
        std::string refusal;
        WireIo::Receive(refused.get(), &status, &reply, PlatChild::kDeadlineMs, &refusal);
        const std::string told = "too many connections from uid 2000 (limit " + std::to_string(share) +
                                 " for service " + kSsiName + "), none of them idle";
        return parent.Say(refusal == told ? 'y' : 'n') && parent.Hear() == 'x' ? 0 : 7;
    });
    ASSERT_EQ(holder.Hear(), 'p');
    // The holder's share less the connection its proxy took, and our proxy's.
    ASSERT_TRUE(AwaitConnections(share)) << Connections();
    ASSERT_TRUE(holder.Say('g'));
    ASSERT_EQ(holder.Hear(), 'y');
    EXPECT_EQ(CallAs(kShellUid + 1), 0);  // another uid is served while the share is held
    // One line each, at a bounded rate (five a window of 10 s): the rest are counted, not logged.
    const size_t windows = (std::chrono::steady_clock::now() - start) / std::chrono::seconds(10) + 1;
    const size_t lines = capture_.Count("binder: evicted the oldest idle connection of uid 2000 (pid " +
                                           std::to_string(holder.pid()) + ", idle for ", "", ANDROID_LOG_INFO);
    EXPECT_TRUE(lines >= 1 && lines <= 5 * windows) << lines << " in " << windows;
    EXPECT_TRUE(capture_.Contains(" ms) from " + kSsiName + " to admit a newcomer of uid 2000"));
    EXPECT_TRUE(AwaitLine(capture_, "binder: refused a connection from pid " + std::to_string(holder.pid()) +
                                        ": too many connections from uid 2000", ANDROID_LOG_WARN));

    // Stalled half-way, the busy ones are closed in time (before the holder goes).
    SetTimeouts(60000, 200);
    EXPECT_TRUE(AwaitConnections(1)) << Connections();
    EXPECT_TRUE(AwaitLine(capture_, "stalled mid-transaction for more than 200 ms", ANDROID_LOG_WARN));
    ASSERT_TRUE(holder.Say('x'));
    EXPECT_EQ(holder.Exit(), 0);
    // Idle ones are closed too; a proxy whose pooled connection went so reconnects without its caller noticing.
    SetTimeouts(200, 200);
    EXPECT_TRUE(AwaitConnections(0)) << Connections();
    EXPECT_TRUE(AwaitLine(capture_, "idle for more than 200 ms", ANDROID_LOG_INFO));
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
}

// A service full of many uids (low fd limit) admits a newcomer by evicting from the uid that holds the most.
TEST_F(HostileClientTest, AFullServiceMakesRoomForANewcomer) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root to call as another uid";
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    // Room for 8 connections (1 already ours), 2 per uid.
    rlimit low = saved;
    low.rlim_cur = BinderProcess::kReservedFds + 8;
    ASSERT_LT(ProcessCounts::Of().fds + 20, low.rlim_cur);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<std::unique_ptr<PlatChild>> holders;
    for (uid_t uid = kShellUid; uid < kShellUid + 6; ++uid) {
        holders.push_back(std::make_unique<PlatChild>(uid, [&](PlatChild& parent) {
            unique_fd a = WireIo::Connect(path_, kConnectMs);
            unique_fd b = uid == kShellUid ? WireIo::Connect(path_, kConnectMs) : unique_fd();
            if (!a.ok() || !parent.Say('r') || parent.Hear() != 'j') return 2;
            // An eviction closed it before the newcomer was served.
            return parent.Say(Ended(a, 0) || Ended(b, 0) ? 'e' : 'k') ? 0 : 3;
        }));
        ASSERT_EQ(holders.back()->Hear(), 'r');
    }
    // Full: uid 2000 holds two, five other uids and our proxy one each.
    ASSERT_TRUE(AwaitConnections(8)) << Connections();
    // A ninth caller: uid 2000 holds the most and gives one up.
    EXPECT_EQ(CallAs(kShellUid + 9), 0);
    std::string ends;
    for (auto& holder : holders) {
        holder->Say('j');
        ends += holder->Hear();
        EXPECT_EQ(holder->Exit(), 0);
    }
    EXPECT_EQ(ends, "ekkkkk");  // only uid 2000 lost a connection
    // Logged through its own ration, apart from a uid's evictions for itself.
    EXPECT_TRUE(AwaitLine(capture_, "binder: evicted the oldest idle connection of uid 2000 (pid " +
                                       std::to_string(holders[0]->pid()) + ", idle for "));
    EXPECT_TRUE(capture_.Contains(" ms) from " + kSsiName + " to admit a newcomer of uid 2009"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

TEST_F(HostileClientTest, UnfinishedTransactionsOfOneUidStayWithinItsBudget) {
    if (geteuid() != 0) GTEST_SKIP() << "skipped: needs root to call as another uid";
    const size_t uidBudget = BinderProcess::kMaxBufferedBytes / BinderProcess::kUidShareDivisor;
    PlatChild hog(kShellUid, [&](PlatChild& parent) {
        // Each connection sends all but the last byte of a largest transaction.
        const uint32_t size = WireIo::kMaxDataSize;
        const std::string body(size - 1, 'b');
        const WireHeader header{WireIo::kRequestMagic, FIRST_CALL_TRANSACTION, size, 0};
        std::vector<unique_fd> held;
        for (size_t i = 0; i < uidBudget / size + 2; ++i) {
            held.push_back(WireIo::Connect(path_, kConnectMs));
            if (send(held.back().get(), &header, sizeof(header), MSG_NOSIGNAL) != sizeof(header)) return 2;
            ssize_t n = 1;
            // A failed send: the server closed it, over the budget.
            for (size_t sent = 0; sent < body.size() && n > 0; sent += n) {
                n = send(held.back().get(), body.data() + sent, body.size() - sent, MSG_NOSIGNAL);
            }
        }
        return parent.Say('y') && parent.Hear() == 'x' ? 0 : 3;
    });
    ASSERT_EQ(hog.Hear(), 'y');
    const std::string exceeded = "unfinished transactions of uid 2000 exceed " + std::to_string(uidBudget) + " bytes";
    EXPECT_TRUE(AwaitLine(capture_, exceeded, ANDROID_LOG_ERROR));
    EXPECT_LE(Buffered(), uidBudget);
    // Another uid's call, large itself, is served meanwhile.
    std::string big(256 * 1024, 'q');  // 512 KiB as UTF-16
    EXPECT_EQ(proxy_->reportNativeFeatureEvent(big, "", "").getMessage().size(),
              big.size() + ("|uid=" + std::to_string(getuid()) + "|pid=" + std::to_string(getpid())).size());
    // Stalled half-way, they are closed in time and their memory given back.
    SetTimeouts(60000, 200);
    EXPECT_TRUE(WaitFor([&] { return Buffered() == 0; }, kDeadline)) << Buffered();
    ASSERT_TRUE(hog.Say('x'));
    EXPECT_EQ(hog.Exit(), 0);
}

// Out of descriptors, the server pauses accepting and says so once, not retrying and logging at full speed.
using DescriptorExhaustionTest = tarnis_test::PlatBinderTest;

TEST_F(DescriptorExhaustionTest, AnEmfileFloodCostsBoundedCpuAndLogLines) {
    const std::string errPath = root_.Sub("server.err");
    PlatChild server(PlatChild::kSameUid, [&](PlatChild& parent) {
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(err, STDERR_FILENO);
        auto impl = ndk::SharedRefBase::make<EchoSsi>();
        if (AServiceManager_addService(impl->asBinder().get(), kSsiName.c_str()) != STATUS_OK) return 2;
        // Before fds run out: UBSan's first type check opens a pipe, libbase's first line its lock (tsan.supp).
        LOG(INFO) << "server of " << kSsiName << " ready, pid " << static_cast<uint64_t>(getpid());
        BinderProcess::self().setMaxThreads(2);
        ABinderProcess_startThreadPool();
        rlimit limit{128, 128};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 3;
        std::vector<int> fillers;
        for (int fd; (fd = dup(STDIN_FILENO)) >= 0;) fillers.push_back(fd);
        if (!parent.Say('y') || parent.Hear() != 'r') return 4;
        for (int fd : fillers) close(fd);
        return parent.Hear() == 'q' ? 0 : 5;
    });
    ASSERT_EQ(server.Hear(), 'y');
    // What the refused and the returning client leave in this process.
    const ProcessCounts before = ProcessCounts::Of();
    const long cpuBefore = tarnis_test::CpuTicks(server.pid());
    std::vector<unique_fd> flood;
    const std::string socketPath = ServiceManager::SocketPath(kSsiName);
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
         std::chrono::steady_clock::now() < end;) {
        unique_fd conn = WireIo::Connect(socketPath, 0);
        if (conn.ok()) flood.push_back(std::move(conn));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const long cpu = tarnis_test::CpuTicks(server.pid()) - cpuBefore;
    EXPECT_LT(cpu, sysconf(_SC_CLK_TCK) / 4) << "the server spent " << cpu << " ticks in a 1 s flood";
    // Shed clients were told why.
    size_t told = 0;
    for (auto& conn : flood) {
        uint32_t status = 0;
        android::Parcel reply;
        std::string refusal;
        WireIo::Receive(conn.get(), &status, &reply, 0, &refusal);
        told += refusal == "the daemon is out of file descriptors; try again later";
    }
    EXPECT_GE(told, 1u);
    flood.clear();
    // With descriptors back, it answers again once its pause is over (an early client is told why).
    ASSERT_TRUE(server.Say('r'));
    EXPECT_TRUE(WaitFor([&] { return Served(socketPath); }, kDeadline)) << BpBinder::LastError();
    ASSERT_TRUE(server.Say('q'));
    EXPECT_EQ(server.Exit(), 0);
    const std::string err = tarnis_test::ReadFile(errPath);
    EXPECT_EQ(tarnis_test::RunShell("grep -c 'cannot accept on' " + errPath), "1\n") << err.substr(0, 2000);
    EXPECT_NE(err.find("Too many open files; pausing for 100 ms"), std::string::npos) << err.substr(0, 2000);
    EXPECT_TRUE(ProcessCounts::Await(before)) << "before: " << before.ToString()
                                              << ", after: " << ProcessCounts::Of().ToString();
}

// The types of this daemon's interfaces that AidlAgreementTest (and ServiceTest's filtered socket) do not carry.
TEST(ParcelTest, EveryOtherTypeRoundTripsInOrder) {
    Parcel p;
    const String16 astral(u"caf\u00e9 \U0001F600");
    ASSERT_EQ(p.writeString16(astral), android::OK);
    p.writeString16Vector({String16(u"one"), astral});
    p.writeByteVector({0, 255, 10});
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(p.writeFileDescriptor(pipeFds[1]), android::OK);
    close(pipeFds[1]);  // the parcel holds its own duplicate
    p.writeFileDescriptor(-1);
    p.writeStatus(ndk::ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, "bad"));
    p.writeStatus(ndk::ScopedAStatus::ok());

    // Received bytes and descriptors, as the transport hands them to a reader.
    std::vector<unique_fd> received;
    for (int fd : p.rawFds()) received.emplace_back(dup(fd));
    Parcel q;
    q.setData(p.data(), std::move(received));
    String16 s16;
    std::vector<String16> vs16;
    std::vector<uint8_t> bytes;
    ASSERT_EQ(q.readString16(&s16), android::OK);
    EXPECT_EQ(s16, astral);
    q.readString16Vector(&vs16);
    EXPECT_EQ(vs16, (std::vector<String16>{String16(u"one"), astral}));
    q.readByteVector(&bytes);
    EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 255, 10}));
    unique_fd fd, none;
    ASSERT_EQ(q.readUniqueFileDescriptor(&fd), android::OK);
    ASSERT_EQ(write(fd.get(), "ping", 4), 4);
    char buf[4];
    ASSERT_EQ(read(pipeFds[0], buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "ping");
    close(pipeFds[0]);
    ASSERT_EQ(q.readUniqueFileDescriptor(&none), android::OK);
    EXPECT_FALSE(none.ok());
    ndk::ScopedAStatus status;
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_EQ(status.getDescription(), "Status(-3, EX_ILLEGAL_ARGUMENT): 'bad'");
    EXPECT_EQ(status.getStatus(), STATUS_FAILED_TRANSACTION);  // as the NDK reports an exception
    ASSERT_EQ(q.readStatus(&status), android::OK);
    EXPECT_TRUE(status.isOk());
}

// The bytes a libbinder peer would write: what the generated code of either backend relies on.
TEST(ParcelTest, TheLayoutIsLibbinders) {
    Parcel p;
    p.writeInterfaceToken(String16(u"a.I"));
    p.writeUtf8AsUtf16("\xc3\xa9");
    p.writeByteVector({1, 2, 3, 4, 5});
    p.writeParcelable(android::os::ParcelFileDescriptor(unique_fd(dup(STDERR_FILENO))));
    p.writeNullableParcelable(std::unique_ptr<android::os::ParcelFileDescriptor>());
    p.writeStatus(ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-3, "x"));
    const int32_t words[] = {
        INT32_MIN, -1, 3, 'a' | '.' << 16, 'I',  // strict mode, work source, "a.I" + 0
        1, 0xe9,                                 // "é" + 0
        5, 0x04030201, 5,                        // five bytes, padded
        1, 0, 0,                                 // non-null, no comm channel, the descriptor's index
        0,                                       // null
        -8, 1, 'x', 0, -3,                       // service-specific: message, no stack trace, code
    };
    ASSERT_EQ(p.dataSize(), sizeof(words));
    EXPECT_EQ(memcmp(p.data().data(), words, sizeof(words)), 0);
}

TEST(ParcelTest, HostileBytesAreRefusedNotTrusted) {
    String16 s;
    std::vector<String16> list;
    unique_fd fd;
    int64_t i64;
    ndk::ScopedAStatus status;
    const struct {
        std::vector<int32_t> words;
        std::function<android::status_t(Parcel&)> read;
        android::status_t refused;
    } cases[] = {
        // A string claiming more units than there are, one without its terminating 0, a null one.
        {{1000, 0}, [&](Parcel& p) { return p.readString16(&s); }, android::BAD_VALUE},
        {{2, 'a' | 'b' << 16, 'c'}, [&](Parcel& p) { return p.readString16(&s); }, android::BAD_VALUE},
        {{-1}, [&](Parcel& p) { return p.readString16(&s); }, android::UNEXPECTED_NULL},
        // A vector count that no data backs: refused before allocating.
        {{INT32_MAX}, [&](Parcel& p) { return p.readString16Vector(&list); }, android::BAD_VALUE},
        {{3}, [&](Parcel& p) { return p.readUniqueFileDescriptor(&fd); }, android::BAD_VALUE},  // no descriptor
        {{5}, [&](Parcel& p) { return p.readInt64(&i64); }, android::NOT_ENOUGH_DATA},
        // A status whose stack trace runs past the data.
        {{EX_ILLEGAL_STATE, 0, 0, 400}, [&](Parcel& p) { return p.readStatus(&status); }, android::BAD_VALUE},
    };
    for (const auto& c : cases) {
        Parcel p;
        for (int32_t w : c.words) p.writeInt32(w);
        p.setDataPosition(0);
        EXPECT_EQ(c.read(p), c.refused) << c.words[0];
    }
    // A descriptor index taken twice. (A wrong interface token is TransportTest's: the service refuses the call.)
    Parcel g;
    g.writeFileDescriptor(STDERR_FILENO);
    g.writeInt32(0);
    g.setDataPosition(0);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::OK);
    EXPECT_EQ(g.readUniqueFileDescriptor(&fd), android::BAD_VALUE);
}

std::string Frame(uint32_t code, const std::string& body, uint32_t fds) {
    WireHeader header{WireIo::kRequestMagic, code, static_cast<uint32_t>(body.size()), fds};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

unique_fd NullFd() { return unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

TEST(WireDecoderTest, MessagesComeOutWholeWhateverTheSplit) {
    const std::string first = Frame(7, "first", 1), second = Frame(8, "", 0);
    const std::string stream = first + second + Frame(9, "third!", 2);
    // Byte by byte, and all three at once.
    for (size_t chunk : {size_t{1}, stream.size()}) {
        SCOPED_TRACE(chunk);
        WireDecoder decoder({WireIo::kRequestMagic});
        WireMessage message;
        std::string error;
        std::string said;  // code, data and descriptor count of each
        for (size_t at = 0; at < stream.size(); at += chunk) {
            // Descriptors ride on the first byte of their message.
            for (size_t fdAt : {size_t{0}, first.size() + second.size(), first.size() + second.size()}) {
                if (fdAt >= at && fdAt < at + chunk) decoder.fds()->push_back(NullFd());
            }
            decoder.buffer()->append(stream, at, chunk);
            WireDecoder::Result result;
            while ((result = decoder.next(&message, &error)) == WireDecoder::Result::kMessage) {
                said += std::to_string(message.codeOrStatus) + ":" + message.data + ":" +
                        std::to_string(message.fds.size()) + " ";
            }
            ASSERT_EQ(result, WireDecoder::Result::kNeedMore) << error;
        }
        EXPECT_EQ(said, "7:first:1 8::0 9:third!:2 ");
        EXPECT_TRUE(decoder.empty());
    }
}

TEST(WireDecoderTest, AStreamThatCannotBeValidIsRefusedAtOnce) {
    struct Case {
        std::string bytes;
        size_t fds;
        std::string error;
        std::vector<uint32_t> magics = {WireIo::kRequestMagic};
    } cases[] = {
        {Frame(1, "abcd", 1), 0, "malformed transaction (descriptors missing)"},
        {Frame(1, "", 33), 0, "transaction with 33 descriptors exceeds the limit"},
        {"", WireIo::kMaxFds + 1, "more descriptors than any transaction carries"},
        // A reply decoder takes no requests.
        {Frame(1, "", 0), 0, "malformed transaction (bad header)", {WireIo::kReplyMagic, WireIo::kRefuseMagic}},
    };
    for (auto& c : cases) {
        WireDecoder decoder(c.magics);
        *decoder.buffer() = c.bytes;
        for (size_t i = 0; i < c.fds; ++i) decoder.fds()->push_back(NullFd());
        WireMessage message;
        std::string error;
        EXPECT_EQ(decoder.next(&message, &error), WireDecoder::Result::kError) << c.error;
        EXPECT_EQ(error, c.error);
    }
}

std::mutex gLock;
std::vector<std::string> gCalls;  // what each service was called with, in order, on either backend

std::vector<std::string> TakeCalls() {
    std::lock_guard<std::mutex> lock(gLock);
    return std::move(gCalls);
}

std::string Text(const std::string& s) { return s; }
std::string Text(int64_t n) { return std::to_string(n); }
std::string Text(const std::vector<std::string>& list) {
    std::string out;
    for (const auto& s : list) out += "[" + s + "]";
    return out;
}

// Records the call and answers it as the backend's status type R; some calls are refused, one way or the other.
template <typename R, typename... Args>
R Answer(const char* method, const Args&... args) {
    std::string call = method;
    ((call += "|" + Text(args)), ...);
    std::lock_guard<std::mutex> lock(gLock);
    gCalls.push_back(call);
    ndk::ScopedAStatus answer;
    if (call.rfind("reportTrelvoEvent|", 0) == 0 || call.rfind("transferMessage|refuse", 0) == 0) {
        answer = ndk::ScopedAStatus::fromServiceSpecificErrorWithMessage(-2, "no \xc3\xa9: " + call);
    } else if (call.rfind("reportTrelvoEvents|", 0) == 0) {
        answer = ndk::ScopedAStatus::fromStatus(STATUS_UNKNOWN_ERROR);
    }
    if constexpr (std::is_same_v<R, Status>) {
        return answer.status();
    } else {
        return answer;
    }
}

// The services of either backend: Bn is the hand-written or the generated stub.
template <typename Bn, typename R>
class Ssi : public Bn {
    R reportSimpleEvent(int32_t t, const std::string& e) override { return Answer<R>("reportSimpleEvent", t, e); }
    R reportEventV2(const std::string& a, const std::string& b, const std::string& c, bool f) override {
        return Answer<R>("reportEventV2", a, b, c, f);
    }
    R reportNativeFeatureEvent(const std::string& a, const std::string& b, const std::string& c) override {
        return Answer<R>("reportNativeFeatureEvent", a, b, c);
    }
    R appCaptureLog(const std::string& a, const std::string& b, const std::string& c, const std::string& d) override {
        return Answer<R>("appCaptureLog", a, b, c, d);
    }
    R reportEventsV2(const std::string& a, const std::vector<std::string>& e, const std::string& c, bool f) override {
        return Answer<R>("reportEventsV2", a, e, c, f);
    }
    R reportTrelvoEvent(const std::string& a, const std::string& p, const std::string& j, int32_t f) override {
        return Answer<R>("reportTrelvoEvent", a, p, j, f);
    }
    R reportTrelvoEvents(const std::string& a, const std::string& p, const std::vector<std::string>& j,
                         int32_t f) override {
        return Answer<R>("reportTrelvoEvents", a, p, j, f);
    }
};

template <typename Bn, typename R>
class Messages : public Bn {
    R transferMessage(const std::string& a, const std::string& j) override { return Answer<R>(__func__, a, j); }
};

// A received descriptor must be close-on-exec: a service's children inherit nothing a caller sent.
template <typename Bn, typename R, typename Ashmem>
class Kolto : public Bn {
    R GetFileSize(const std::string& d, const std::string& f, int64_t* size) override {
        *size = int64_t{1} << 40;
        return Answer<R>("GetFileSize", d, f);
    }
    R ReadFromFile(const std::string& d, const std::string& f, const Ashmem& region, int64_t size) override {
        const bool written = pwrite(region.fd.get(), "region bytes", size, 0) == size;
        const bool closeOnExec = fcntl(region.fd.get(), F_GETFD) == FD_CLOEXEC;
        return Answer<R>("ReadFromFile", d, f, region.size, size, written ? "written" : "not written",
                         closeOnExec ? "close-on-exec" : "inherited");
    }
};

std::string Said(const ndk::ScopedAStatus& status) { return status.getDescription(); }
std::string Said(const Status& status) { return status.toString8().string(); }

// The same calls through the proxies of one backend: what the service saw of each, and what it brought back.
template <typename Ssi, typename SsiIntl, typename Kolto, typename Intl, typename Region>
std::vector<std::pair<std::string, std::string>> Drive(const Ssi& ssi, const SsiIntl& ssiIntl, const Kolto& kolto,
                                                       const Intl& intl, const Region& region) {
    int64_t size = 0;
    std::vector<std::string> said = {
        Said(ssi->reportSimpleEvent(-1, "caf\xc3\xa9 \xf0\x9f\x98\x80")),
        Said(ssi->reportEventV2("a", "", "c", true)),
        Said(ssi->reportNativeFeatureEvent("x", "y", std::string("z\0z", 3))),
        Said(ssi->appCaptureLog("1", "2", "3", "4")),
        Said(ssi->reportEventsV2("h", {"e1", "", "e3"}, "t", false)),
        Said(ssi->reportTrelvoEvent("app", "pkg", "{}", INT32_MIN)),
        Said(ssi->reportTrelvoEvents("app", "pkg", {"{\"k\":1}"}, 2)),
        Said(ssiIntl->transferMessage("velmar.intent.action.X", "{\"k\":\"\xc3\xa9\"}")),
        Said(intl->transferMessage("refuse", "{}")),
        Said(kolto->GetFileSize("/data/vendor/", "tee.log", &size)),
        Said(kolto->ReadFromFile("/data/vendor/", "tee.log", region, 6)),
    };
    said[9] += " " + std::to_string(size);
    std::vector<std::string> calls = TakeCalls();
    calls.resize(std::max(calls.size(), said.size()));
    said.resize(calls.size());
    std::vector<std::pair<std::string, std::string>> seen;
    for (size_t i = 0; i < said.size(); ++i) seen.emplace_back(calls[i], said[i]);
    return seen;
}

// A region of 4096 bytes: its holder keeps `memory` to read what the service wrote.
template <typename Region>
Region MakeRegion(android::base::unique_fd* memory) {
    memory->reset(memfd_create("region", MFD_CLOEXEC));
    EXPECT_EQ(ftruncate(memory->get(), 4096), 0);
    Region region;
    region.fd.reset(android::base::unique_fd(dup(memory->get())));
    region.size = 4096;
    return region;
}

// The method name of each code of interface I, as its hand-written class tables them.
template <typename I>
std::pair<const std::string, std::map<uint32_t, std::string>> HandWrittenNames() {
    std::map<uint32_t, std::string> names;
    uint32_t code = FIRST_CALL_TRANSACTION;
    for (const char* name : I::kTransactionNames) names[code++] = name;
    return {I::descriptor, names};
}

using AidlAgreementTest = tarnis_test::PlatBinderTest;

// The hand-written tables name each code's method in binder's lines and the caller policy.
TEST_F(AidlAgreementTest, HandWrittenMethodNamesAreTheGeneratedStubsCodes) {
    std::map<std::string, std::map<uint32_t, std::string>> generated;
#define AIDL_METHOD(descriptor, code, name) generated[descriptor][code] = name;
#include "velmar/system/tarnis/common/aidl_methods.inc"
#include "vendor/velmar/hardware/kolto/common/aidl_methods.inc"
#undef AIDL_METHOD
    EXPECT_EQ(generated, decltype(generated)({HandWrittenNames<ndk_ssi::ITarnisSsi>(),
                                              HandWrittenNames<ndk_ssi::ITarnisSsiIntl>(),
                                              HandWrittenNames<ndk_kolto::IKoltoImpl>(),
                                              HandWrittenNames<ndk_kolto::ITarnisIntl>()}));
}

TEST_F(AidlAgreementTest, EachBackendsServicesAnswerTheOthersProxies) {
    using ndk::ScopedAStatus;
    const std::pair<const char*, android::sp<android::IBinder>> services[] = {
        {"ndk.ssi", ndk::SharedRefBase::make<Ssi<ndk_ssi::BnTarnisSsi, ScopedAStatus>>()->asBinder()},
        {"ndk.ssi.intl", ndk::SharedRefBase::make<Messages<ndk_ssi::BnTarnisSsiIntl, ScopedAStatus>>()->asBinder()},
        {"ndk.kolto",
         ndk::SharedRefBase::make<Kolto<ndk_kolto::BnKoltoImpl, ScopedAStatus, ndk_kolto::Ashmem>>()->asBinder()},
        {"ndk.intl", ndk::SharedRefBase::make<Messages<ndk_kolto::BnTarnisIntl, ScopedAStatus>>()->asBinder()},
        {"cpp.ssi", new Ssi<cpp_ssi::BnTarnisSsi, Status>()},
        {"cpp.ssi.intl", new Messages<cpp_ssi::BnTarnisSsiIntl, Status>()},
        {"cpp.kolto", new Kolto<cpp_kolto::BnKoltoImpl, Status, cpp_kolto::Ashmem>()},
        {"cpp.intl", new Messages<cpp_kolto::BnTarnisIntl, Status>()},
    };
    for (const auto& [name, binder] : services) {
        ASSERT_EQ(AServiceManager_addService(binder.get(), name), STATUS_OK) << name;
    }
    ABinderProcess_startThreadPool();
    const std::string ok = "No error";
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"reportSimpleEvent|-1|caf\xc3\xa9 \xf0\x9f\x98\x80", ok},
        {"reportEventV2|a||c|1", ok},
        {std::string("reportNativeFeatureEvent|x|y|z\0z", 32), ok},
        {"appCaptureLog|1|2|3|4", ok},
        {"reportEventsV2|h|[e1][][e3]|t|0", ok},
        {"reportTrelvoEvent|app|pkg|{}|-2147483648",
         "Status(-8, EX_SERVICE_SPECIFIC): '-2: no \xc3\xa9: reportTrelvoEvent|app|pkg|{}|-2147483648'"},
        {"reportTrelvoEvents|app|pkg|[{\"k\":1}]|2", "Status(-129, EX_TRANSACTION_FAILED): '-2147483648'"},
        {"transferMessage|velmar.intent.action.X|{\"k\":\"\xc3\xa9\"}", ok},
        {"transferMessage|refuse|{}", "Status(-8, EX_SERVICE_SPECIFIC): '-2: no \xc3\xa9: transferMessage|refuse|{}'"},
        {"GetFileSize|/data/vendor/|tee.log", ok + " 1099511627776"},
        {"ReadFromFile|/data/vendor/|tee.log|4096|6|written|close-on-exec", ok},
    };
    android::base::unique_fd memory[2];
    // The hand-written services through generated proxies, then the generated ones through hand-written proxies.
    EXPECT_EQ(Drive(cpp_ssi::ITarnisSsi::asInterface(Remote("ndk.ssi")),
                    cpp_ssi::ITarnisSsiIntl::asInterface(Remote("ndk.ssi.intl")),
                    cpp_kolto::IKoltoImpl::asInterface(Remote("ndk.kolto")),
                    cpp_kolto::ITarnisIntl::asInterface(Remote("ndk.intl")),
                    MakeRegion<cpp_kolto::Ashmem>(&memory[0])),
              expected);
    EXPECT_EQ(Drive(ndk_ssi::ITarnisSsi::fromBinder(Remote("cpp.ssi")),
                    ndk_ssi::ITarnisSsiIntl::fromBinder(Remote("cpp.ssi.intl")),
                    ndk_kolto::IKoltoImpl::fromBinder(Remote("cpp.kolto")),
                    ndk_kolto::ITarnisIntl::fromBinder(Remote("cpp.intl")),
                    MakeRegion<ndk_kolto::Ashmem>(&memory[1])),
              expected);

    for (const auto& fd : memory) {
        char bytes[8] = {};
        ASSERT_EQ(pread(fd.get(), bytes, 7, 0), 7);
        EXPECT_STREQ(bytes, "region");  // the six bytes asked for, no more
    }
}

}  // namespace
