// Misbehaving binder clients may not take the server down, hold its threads, lock others out or leak its fds.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <aidl/vendor/velmar/hardware/kolto/common/ITarnisIntl.h>
#include <android-base/logging.h>
#include <host/Host.h>
#include <log/log.h>
#include <nuvi/dorva/IDorvaNative.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/Parcel.h"
#include "platform/binder/WireIo.h"
#include "platform/LogCapture.h"
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

TEST_F(HostileClientTest, ADumpWhoseReaderIsGoneEndsWithAnErrorLine) {
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
}

TEST_F(HostileClientTest, ADumpToAFullPipeGivesUpInTimeWhileOtherUidsAreServed) {
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

}  // namespace
