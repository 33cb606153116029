// Clients that misbehave, by accident or on purpose, against a service of
// this process: none may take the server down, hold its threads, or lock
// other callers out; each leaves the server's descriptors and threads as
// they were.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <android-base/logging.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/binder/BinderProcess.h"
#include "platform/binder/BpBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"
#include "platform/LogCapture.h"
#include "tests/platform/binder/EchoSsi.h"
#include "tests/support/ProcessCounts.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitFor.h"

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using android::BinderProcess;
using android::BpBinder;
using android::ServiceManager;
using android::WireHeader;
using android::WireIo;
using android::base::unique_fd;
using tarnis_test::ProcessCounts;
using tarnis_test::RunAsUid;

namespace {

const std::string kName = std::string(ITarnisSsi::descriptor) + "/default";
constexpr uid_t kShellUid = 2000;

class HostileClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        chmod(root_.path().c_str(), 0755);  // reachable by a child that drops to another uid
        platform::SetRoot(root_.path());
        impl_ = ndk::SharedRefBase::make<EchoSsi>();
        ASSERT_EQ(AServiceManager_addService(impl_->asBinder().get(), kName.c_str()), STATUS_OK);
        // Two threads: one uid may take one of them, so a client that held a
        // thread for good would starve everybody else at once.
        BinderProcess::self().setMaxThreads(2);
        ABinderProcess_startThreadPool();
        BinderProcess::Timeouts timeouts;
        timeouts.idleMs = 60000;
        timeouts.stalledMs = 60000;
        // Long enough for another uid's call to be served while dumps wait,
        // on a loaded machine too.
        timeouts.dumpMs = 3000;
        BinderProcess::self().setTimeouts(timeouts);
        path_ = ServiceManager::SocketPath(kName);
        proxy_ = ITarnisSsi::fromBinder(BpBinder::Connect(kName, path_));
        ASSERT_NE(proxy_, nullptr);
        ASSERT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
        before_ = ProcessCounts::Of();
    }
    void TearDown() override {
        proxy_.reset();
        EXPECT_TRUE(ProcessCounts::Await(Expected()))
            << "before: " << before_.ToString() << ", after: " << ProcessCounts::Of().ToString();
        BinderProcess::self().setTimeouts(BinderProcess::Timeouts());
        ServiceManager::instance().removeService(kName);
        platform::SetRoot("/");
    }
    // The proxy's pooled connection and the server's end of it go away with
    // the proxy.
    ProcessCounts Expected() const {
        ProcessCounts expected = before_;
        expected.fds -= 2;
        return expected;
    }
    static bool RequireRoot() { return geteuid() == 0; }
    size_t Connections() { return BinderProcess::self().usage(path_).connections; }
    size_t Buffered() { return BinderProcess::self().usage(path_).bufferedBytes; }
    // A pipe whose buffer is full and whose reader never reads.
    static void FullPipe(int fds[2]) {
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        int flags = fcntl(fds[1], F_GETFL);
        fcntl(fds[1], F_SETFL, flags | O_NONBLOCK);
        std::string block(65536, 'x');
        while (write(fds[1], block.data(), block.size()) > 0) {
        }
        fcntl(fds[1], F_SETFL, flags);
    }
    binder_status_t Dump(int fd) {
        const char* args[] = {"x"};
        return AIBinder_dump(proxy_->asBinder().get(), fd, args, 1);
    }

    tarnis_test::TempDir root_;
    std::shared_ptr<EchoSsi> impl_;
    std::string path_;
    std::shared_ptr<ITarnisSsi> proxy_;
    ProcessCounts before_;
};

TEST_F(HostileClientTest, ADumpWhoseReaderIsGoneEndsWithAnErrorLine) {
    platform::LogCapture capture;
    // This test process does not ignore SIGPIPE: the write into a pipe
    // without a reader would kill it if the relay let the signal through.
    ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    close(fds[0]);
    EXPECT_EQ(Dump(fds[1]), android::DEAD_OBJECT);
    close(fds[1]);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    close(pair[0]);
    EXPECT_EQ(Dump(pair[1]), android::DEAD_OBJECT);
    close(pair[1]);
    EXPECT_EQ(capture.Count("binder: dump of " + std::string(ITarnisSsi::descriptor) + " for pid " +
                                std::to_string(getpid()) + " uid " + std::to_string(getuid()) +
                                ": the reader went away after 0 of 7 bytes",
                            "", ANDROID_LOG_ERROR),
              2u);
    // The thread is back in the pool and the server still answers.
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
    // A reader that stays gets every byte, whatever the descriptor.
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    EXPECT_EQ(Dump(fds[1]), STATUS_OK);
    close(fds[1]);
    char buf[32] = {};
    EXPECT_EQ(read(fds[0], buf, sizeof(buf)), 7);
    EXPECT_STREQ(buf, "dump x\n");
    close(fds[0]);
}

TEST_F(HostileClientTest, ADumpToAFullPipeGivesUpInTimeWhileOtherUidsAreServed) {
    if (!RequireRoot()) GTEST_SKIP() << "skipped: needs root to call as another uid";
    platform::LogCapture capture;
    // Two stuck dumps from this uid: more than its share of the pool.
    int first[2], second[2];
    FullPipe(first);
    FullPipe(second);
    std::atomic<int> finished{0};
    std::vector<binder_status_t> results(2, STATUS_OK);
    std::vector<std::thread> dumps;
    for (int i = 0; i < 2; ++i) {
        dumps.emplace_back([&, i] {
            results[i] = Dump(i == 0 ? first[1] : second[1]);
            ++finished;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // Another uid's call is served while both dumps still wait on their readers.
    EXPECT_EQ(RunAsUid(kShellUid, [&] {
                  auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kName, path_));
                  return ssi != nullptr && ssi->reportSimpleEvent(0, "quiet").isOk() ? 0 : 1;
              }),
              0);
    EXPECT_EQ(finished.load(), 0);
    for (auto& t : dumps) t.join();
    EXPECT_EQ(results[0], android::TIMED_OUT);
    EXPECT_EQ(results[1], android::TIMED_OUT);
    EXPECT_EQ(capture.Count("the output was not drained within 3000 ms; gave up after 0 of 7 bytes", "",
                            ANDROID_LOG_ERROR),
              2u);
    for (int fd : {first[0], first[1], second[0], second[1]}) close(fd);
    // Both threads are back.
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
}

// One uid that leaks connections (most callers of a phone share one) makes
// room for its own newcomers at the cost of its longest-unused idle ones; it
// is turned away only when every one of its connections is busy, and never
// locks another uid out.
TEST_F(HostileClientTest, AUidAtItsShareGivesUpItsOldestIdleConnectionToItsNewcomer) {
    if (!RequireRoot()) GTEST_SKIP() << "skipped: needs root to call as another uid";
    platform::LogCapture capture;
    const size_t share = BinderProcess::kMaxConnections / BinderProcess::kUidShareDivisor;
    const size_t total = share + 144;
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        if (setgid(kShellUid) != 0 || setuid(kShellUid) != 0) _exit(99);
        auto ended = [](const unique_fd& fd, int timeoutMs) {
            pollfd pfd{fd.get(), POLLIN, 0};
            char bytes[256];
            ssize_t n = 1;
            while (n > 0 && poll(&pfd, 1, timeoutMs) == 1) n = read(fd.get(), bytes, sizeof(bytes));
            return n == 0;
        };
        std::vector<unique_fd> held;
        for (size_t i = 0; i < total; ++i) held.push_back(WireIo::Connect(path_, 2000));
        // The first ones made room for the last, which all stay.
        for (size_t i = 0; i < total - share; ++i) {
            if (!ended(held[i], 5000)) _exit(2);
        }
        for (size_t i = total - share; i < total; ++i) {
            if (ended(held[i], 0)) _exit(3);
        }
        // A proxy of the same uid is served; the oldest idle one went for it.
        {
            auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kName, path_));
            if (ssi == nullptr || !ssi->reportSimpleEvent(0, "quiet").isOk()) _exit(4);
            if (!ended(held[total - share], 2000)) _exit(5);
        }
        // Every connection of the uid busy (half a transaction each): the
        // newcomer is turned away with the reason. The one that takes the
        // proxy's place is made only once the service has let the proxy's
        // go: until a pool thread has closed it, it is neither idle nor gone,
        // and the service would rightly turn that one away instead.
        char c = 'p';
        if (write(ready[1], &c, 1) != 1 || read(release[0], &c, 1) != 1) _exit(7);
        const WireHeader header{WireIo::kRequestMagic, FIRST_CALL_TRANSACTION, 64, 0};
        for (size_t i = total - share + 1; i <= total; ++i) {
            if (i == total) held.push_back(WireIo::Connect(path_, 2000));
            if (send(held[i].get(), &header, sizeof(header), MSG_NOSIGNAL) != sizeof(header)) _exit(6);
        }
        const std::string told = "too many connections from uid 2000 (limit " + std::to_string(share) +
                                 " for service " + kName + "), none of them idle";
        unique_fd refused = WireIo::Connect(path_, 2000);
        uint32_t status = 0;
        android::Parcel reply;
        std::string refusal;
        WireIo::Receive(refused.get(), &status, &reply, 5000, &refusal);
        c = refusal == told ? 'y' : 'n';
        if (write(ready[1], &c, 1) != 1) _exit(7);
        _exit(read(release[0], &c, 1) == 1 ? 0 : 8);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    // The holder's share less the connection its proxy took, and our proxy's.
    EXPECT_TRUE(tarnis_test::WaitFor([&] { return Connections() == share; })) << Connections();
    ASSERT_EQ(write(release[1], &c, 1), 1);
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_EQ(c, 'y');
    // The holder's share, and its proxy's connection until the service has
    // seen that one close.
    const size_t open = Connections();
    EXPECT_TRUE(open == share || open == share + 1) << open;
    // Another uid (ours) is served while the share is held.
    auto fresh = ITarnisSsi::fromBinder(BpBinder::Connect(kName, path_));
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(fresh->reportSimpleEvent(0, "quiet").isOk());
    fresh.reset();
    const std::string evicted = "binder: evicted the oldest idle connection of uid 2000 (pid " +
                                std::to_string(holder) + ", idle for ";
    // One line each, at a bounded rate: the rest are counted, not logged.
    const size_t lines = capture.Count(evicted, "", ANDROID_LOG_INFO);
    EXPECT_TRUE(lines >= 1 && lines <= 10 && capture.Contains(" to admit a newcomer of uid 2000")) << lines;
    EXPECT_TRUE(capture.Contains("binder: refused a connection from pid " + std::to_string(holder) +
                                     ": too many connections from uid 2000",
                                 "", ANDROID_LOG_WARN));

    // Stalled half-way, the busy ones are closed in time (before the holder goes).
    BinderProcess::Timeouts timeouts = BinderProcess::self().timeouts();
    timeouts.stalledMs = 200;
    BinderProcess::self().setTimeouts(timeouts);
    for (int i = 0; i < 200 && Connections() > 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(Connections(), 1u);
    ASSERT_EQ(write(release[1], "x", 1), 1);
    int status = 0;
    waitpid(holder, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    // Idle connections are closed too; a proxy whose pooled connection went
    // that way reconnects without its caller noticing.
    timeouts.idleMs = 200;
    BinderProcess::self().setTimeouts(timeouts);
    for (int i = 0; i < 200 && Connections() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(Connections(), 0u);
    EXPECT_TRUE(capture.Contains("idle for more than 200 ms", "", ANDROID_LOG_INFO));
    EXPECT_TRUE(proxy_->reportSimpleEvent(0, "quiet").isOk());
    for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
}

// Many uids together fill a service whose cap a low descriptor limit made
// small; a newcomer is let in at the cost of an idle connection of the uid
// that holds the most, not turned away.
TEST_F(HostileClientTest, AFullServiceMakesRoomForANewcomer) {
    if (!RequireRoot()) GTEST_SKIP() << "skipped: needs root to call as another uid";
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    // Room for 8 connections (1 already ours), 2 per uid.
    rlimit low = saved;
    low.rlim_cur = BinderProcess::kReservedFds + 8;
    ASSERT_LT(ProcessCounts::Of().fds + 20, low.rlim_cur);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<std::pair<pid_t, int>> holders;  // pid, pipe that says how it ended
    for (uid_t uid = kShellUid; uid < kShellUid + 6; ++uid) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Copies of the server's accepted sockets would keep them open
            // in here after the server closes them: keep only the report pipe.
            if (dup2(report[1], 3) != 3) _exit(98);
            syscall(SYS_close_range, 4U, ~0U, 0U);
            report[1] = 3;
            if (setgid(uid) != 0 || setuid(uid) != 0) _exit(99);
            unique_fd a = WireIo::Connect(path_, 2000);
            unique_fd b = uid == kShellUid ? WireIo::Connect(path_, 2000) : unique_fd();
            if (write(report[1], "r", 1) != 1) _exit(2);
            // Wait for the end of stream the eviction brings (or the parent's kill).
            pollfd pfd{a.get(), POLLIN, 0};
            pollfd pfdB{b.get(), POLLIN, 0};
            bool first = poll(&pfd, 1, 3000) == 1;
            bool second = b.ok() && poll(&pfdB, 1, 0) == 1;
            char c = first || second ? 'e' : 'k';
            if (write(report[1], &c, 1) != 1) _exit(3);
            _exit(0);
        }
        close(report[1]);
        char c;
        ASSERT_EQ(read(report[0], &c, 1), 1);
        holders.emplace_back(child, report[0]);
    }
    // Full: uid 2000 holds two, five other uids and our proxy one each.
    for (int i = 0; i < 100 && Connections() < 8; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(Connections(), 8u);
    platform::LogCapture capture;
    // A ninth caller: uid 2000 holds the most and gives one up.
    EXPECT_EQ(RunAsUid(kShellUid + 9, [&] {
                  auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kName, path_));
                  return ssi != nullptr && ssi->reportSimpleEvent(0, "quiet").isOk() ? 0 : 1;
              }),
              0);
    std::string ends;
    for (auto& [pid, report] : holders) {
        char c = '?';
        if (read(report, &c, 1) != 1) c = '?';
        ends += c;
        waitpid(pid, nullptr, 0);
        close(report);
    }
    EXPECT_EQ(ends, "ekkkkk");  // only uid 2000 lost a connection
    EXPECT_TRUE(capture.Contains("binder: evicted the oldest idle connection of uid 2000 (pid " +
                                 std::to_string(holders[0].first) + ", idle for "));
    EXPECT_TRUE(capture.Contains(" ms) from " + kName + " to admit a newcomer of uid 2009"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
}

TEST_F(HostileClientTest, UnfinishedTransactionsOfOneUidStayWithinItsBudget) {
    if (!RequireRoot()) GTEST_SKIP() << "skipped: needs root to call as another uid";
    platform::LogCapture capture;
    const size_t uidBudget = BinderProcess::kMaxBufferedBytes / BinderProcess::kUidShareDivisor;
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t hog = fork();
    ASSERT_GE(hog, 0);
    if (hog == 0) {
        if (setgid(kShellUid) != 0 || setuid(kShellUid) != 0) _exit(99);
        // Each connection sends all but the last byte of a largest transaction.
        const uint32_t size = WireIo::kMaxDataSize;
        std::string body(size - 1, 'b');
        std::vector<unique_fd> held;
        for (size_t i = 0; i < uidBudget / size + 2; ++i) {
            held.push_back(WireIo::Connect(path_, 2000));
            WireHeader header{WireIo::kRequestMagic, FIRST_CALL_TRANSACTION, size, 0};
            if (send(held.back().get(), &header, sizeof(header), MSG_NOSIGNAL) != sizeof(header)) _exit(2);
            size_t sent = 0;
            while (sent < body.size()) {
                ssize_t n = send(held.back().get(), body.data() + sent, body.size() - sent, MSG_NOSIGNAL);
                if (n <= 0) break;  // closed by the server: over the budget
                sent += static_cast<size_t>(n);
            }
        }
        char c = 'y';
        if (write(ready[1], &c, 1) != 1) _exit(3);
        if (read(release[0], &c, 1) != 1) _exit(4);
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    for (int i = 0; i < 200 && !capture.Contains("exceed"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(capture.Contains("unfinished transactions of uid 2000 exceed " + std::to_string(uidBudget) +
                                     " bytes",
                                 "", ANDROID_LOG_ERROR));
    EXPECT_LE(Buffered(), uidBudget);
    // Another uid's call, large itself, is served meanwhile.
    std::string big(256 * 1024, 'q');  // 512 KiB as UTF-16
    EXPECT_EQ(proxy_->reportNativeFeatureEvent(big, "", "").getMessage().size(),
              big.size() + ("|uid=" + std::to_string(getuid()) + "|pid=" + std::to_string(getpid())).size());
    // Stalled half-way, they are closed in time and their memory given back.
    BinderProcess::Timeouts timeouts = BinderProcess::self().timeouts();
    timeouts.stalledMs = 200;
    BinderProcess::self().setTimeouts(timeouts);
    for (int i = 0; i < 300 && Buffered() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(Buffered(), 0u);
    EXPECT_TRUE(capture.Contains("stalled mid-transaction for more than 200 ms", "", ANDROID_LOG_WARN));
    ASSERT_EQ(write(release[1], "x", 1), 1);
    waitpid(hog, nullptr, 0);
    for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
}

// Out of descriptors, the server pauses accepting and says so once per
// interval, instead of retrying at full speed and logging every attempt.
TEST(DescriptorExhaustionTest, AnEmfileFloodCostsBoundedCpuAndLogLines) {
    const ProcessCounts before = ProcessCounts::Of();
    {
    tarnis_test::TempDir root;
    const std::string errPath = root.Sub("server.err");
    int ready[2], relieve[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(relieve), 0);
    pid_t server = fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        platform::SetRoot(root.path());
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(err, STDERR_FILENO);
        auto impl = ndk::SharedRefBase::make<EchoSsi>();
        if (AServiceManager_addService(impl->asBinder().get(), kName.c_str()) != STATUS_OK) _exit(2);
        // Logged while descriptors last and before the pool's threads start:
        // UBSan opens a pipe the first time it checks a stream's type, and
        // libbase makes its logging lock on the first line (tests/tsan.supp).
        LOG(INFO) << "server of " << kName << " ready, pid " << static_cast<uint64_t>(getpid());
        BinderProcess::self().setMaxThreads(2);
        ABinderProcess_startThreadPool();
        rlimit limit{128, 128};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(3);
        std::vector<int> fillers;
        for (int fd; (fd = dup(STDIN_FILENO)) >= 0;) fillers.push_back(fd);
        char c = 'y';
        if (write(ready[1], &c, 1) != 1) _exit(4);
        if (read(relieve[0], &c, 1) != 1) _exit(5);
        for (int fd : fillers) close(fd);
        pause();
        _exit(0);
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    const long cpuBefore = tarnis_test::CpuTicks(server);
    std::vector<unique_fd> flood;
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    platform::SetRoot(root.path());
    const std::string socketPath = ServiceManager::SocketPath(kName);
    while (std::chrono::steady_clock::now() < end) {
        unique_fd conn = WireIo::Connect(socketPath, 0);
        if (conn.ok()) flood.push_back(std::move(conn));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const long cpu = tarnis_test::CpuTicks(server) - cpuBefore;
    const long hz = sysconf(_SC_CLK_TCK);
    EXPECT_LT(cpu, hz / 4) << "the server spent " << cpu << " ticks in a 1 s flood";
    // Shed clients were told why.
    size_t told = 0;
    for (auto& conn : flood) {
        uint32_t status = 0;
        android::Parcel reply;
        std::string refusal;
        WireIo::Receive(conn.get(), &status, &reply, 0, &refusal);
        if (refusal == "the daemon is out of file descriptors; try again later") ++told;
    }
    EXPECT_GE(told, 1u);
    flood.clear();
    // With descriptors back, the service answers again once its pause is over
    // (a client that comes too early is turned away with the reason).
    ASSERT_EQ(write(relieve[1], "x", 1), 1);
    bool served = false;
    for (int i = 0; i < 100 && !served; ++i) {
        auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kName, socketPath));
        served = ssi != nullptr && ssi->reportSimpleEvent(0, "quiet").isOk();
        if (!served) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(served) << BpBinder::LastError();
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    std::string err = tarnis_test::ReadFile(errPath);
    size_t lines = 0;
    for (size_t pos = 0; (pos = err.find("cannot accept on", pos)) != std::string::npos; ++pos) ++lines;
    EXPECT_EQ(lines, 1u) << err.substr(0, 2000);
    EXPECT_NE(err.find("Too many open files; pausing for 100 ms"), std::string::npos) << err.substr(0, 2000);
    for (int fd : {ready[0], ready[1], relieve[0], relieve[1]}) close(fd);
    platform::SetRoot("/");
    }
    EXPECT_TRUE(ProcessCounts::Await(before)) << "before: " << before.ToString()
                                              << ", after: " << ProcessCounts::Of().ToString();
}

}  // namespace
