// What misbehaving clients cost a real tarnisd, and whether other callers are
// still served meanwhile. Starts the daemon on a scratch root, plays each
// hostile case against it (as uid 2000, the shell's), and prints one table
// row per case: what was sent, what the daemon did, its CPU ticks, resident
// memory and log lines over the case, and the latency of a call made by
// another uid (root) in the middle of it. Then 1,000 dumps from 50 concurrent
// clients while 1,000 idle connections are held. Needs root.
//
//   build/bench/bench_HostileClients [build/tarnisd] [build/tarnisctl]

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <aidl/velmar/system/tarnis/common/ITarnisSsi.h>
#include <aidl/velmar/system/tarnis/common/ITarnisSsiIntl.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/binder/BpBinder.h"
#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"

using aidl::velmar::system::tarnis::common::ITarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsiIntl;
using android::BpBinder;
using android::WireHeader;
using android::WireIo;
using android::base::unique_fd;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uid_t kShellUid = 2000;
std::string gDaemonPath = "build/tarnisd";
std::string gCtlPath = "build/tarnisctl";
std::string gRoot;
pid_t gDaemon = -1;

const std::string kSsi = std::string(ITarnisSsi::descriptor) + "/default";
const std::string kIntl = std::string(ITarnisSsiIntl::descriptor) + "/default";

std::string SocketOf(const std::string& name) { return android::ServiceManager::SocketPath(name); }

struct Cost {
    long ticks = 0;
    long rssKb = 0;
    long peakKb = 0;
    long logLines = 0;
};

long StatusField(pid_t pid, const char* field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field, 0) == 0) return atol(line.c_str() + strlen(field));
    }
    return -1;
}

long Ticks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string f;
    long total = 0;
    for (int i = 3; fields >> f && i <= 15; ++i) {
        if (i == 14 || i == 15) total += atol(f.c_str());
    }
    return total;
}

long LogLines() {
    std::ifstream in(gRoot + "/daemon.err");
    return std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n');
}

Cost Measure() {
    return {Ticks(gDaemon), StatusField(gDaemon, "VmRSS:"), StatusField(gDaemon, "VmHWM:"), LogLines()};
}

bool DaemonAlive() { return kill(gDaemon, 0) == 0 && waitpid(gDaemon, nullptr, WNOHANG) == 0; }

// A call from another uid than the hostile one: milliseconds, or -1 on failure.
double OtherCallerMs(bool quiet = false) {
    auto start = Clock::now();
    auto ssi = ITarnisSsi::fromBinder(BpBinder::Connect(kSsi, SocketOf(kSsi)));
    bool ok = ssi != nullptr && ssi->reportSimpleEvent(0, "probe").isOk();
    auto intl = ITarnisSsiIntl::fromBinder(BpBinder::Connect(kIntl, SocketOf(kIntl)));
    ok = ok && intl != nullptr && intl->transferMessage("bench.PROBE", "{}").isOk();
    if (!ok && !quiet) fprintf(stderr, "hostile: the other uid's call failed: %s\n", BpBinder::LastError().c_str());
    return ok ? std::chrono::duration<double, std::milli>(Clock::now() - start).count() : -1;
}

void StartDaemon(long nofile) {
    gDaemon = fork();
    if (gDaemon == 0) {
        if (nofile > 0) {
            rlimit limit{static_cast<rlim_t>(nofile), static_cast<rlim_t>(nofile)};
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        int err = open((gRoot + "/daemon.err").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        int out = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(err, STDERR_FILENO);
        dup2(out, STDOUT_FILENO);
        execl(gDaemonPath.c_str(), "tarnisd", "--root", gRoot.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 400; ++i) {
        if (OtherCallerMs(true) >= 0) return;
        usleep(25000);
    }
    fprintf(stderr, "hostile: the daemon did not start\n");
    exit(1);
}

void StopDaemon() {
    kill(gDaemon, SIGTERM);
    waitpid(gDaemon, nullptr, 0);
}

// Runs `body` as `uid` in a child and returns once the child has said it is
// ready; the child keeps running until the returned stop function is called
// (which waits for it).
std::function<void()> AsUid(uid_t uid, const std::function<void(int ready)>& body) {
    int ready[2];
    if (pipe(ready) != 0) exit(1);
    pid_t child = fork();
    if (child == 0) {
        close(ready[0]);
        if (setgid(uid) != 0 || setuid(uid) != 0) _exit(99);
        body(ready[1]);
        pause();
        _exit(0);
    }
    close(ready[1]);
    char c;
    if (read(ready[0], &c, 1) != 1) fprintf(stderr, "hostile: a client child failed\n");
    close(ready[0]);
    return [child] {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    };
}

void Ready(int fd) {
    char c = 'y';
    if (write(fd, &c, 1) != 1) _exit(3);
}

std::function<void()> AsShell(const std::function<void(int ready)>& body) { return AsUid(kShellUid, body); }

void Row(const char* name, const std::string& sent, const std::string& did, const Cost& before,
         const Cost& after, double otherMs) {
    printf("| %s | %s | %s | %ld | %ld / %ld KiB | %ld | %s |\n", name, sent.c_str(), did.c_str(),
           after.ticks - before.ticks, after.rssKb, after.peakKb, after.logLines - before.logLines,
           otherMs < 0 ? "FAILED" : (std::to_string(static_cast<int>(otherMs * 1000)) + " us").c_str());
    fflush(stdout);
}

std::string Shell(const std::string& command) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

size_t CountRefusals(std::vector<unique_fd>& conns, const std::string& prefix) {
    size_t told = 0;
    for (auto& c : conns) {
        uint32_t status;
        android::Parcel reply;
        std::string refusal;
        WireIo::Receive(c.get(), &status, &reply, 0, &refusal);
        if (refusal.rfind(prefix, 0) == 0) ++told;
    }
    return told;
}

// Runs `tarnisctl ARGS` 100 times from a shell and counts the daemon's log
// lines that mention `pattern`.
void RepeatedToolCase(const char* name, const std::string& sent, const std::string& args,
                      const std::string& pattern, const std::string& outcome) {
    Cost before = Measure();
    Shell("for i in $(seq 100); do " + gCtlPath + " --root " + gRoot + " " + args + "; done");
    double other = OtherCallerMs();
    const int lines = atoi(Shell("grep -c '" + pattern + "' " + gRoot + "/daemon.err").c_str());
    Row(name, sent, DaemonAlive() ? std::to_string(lines) + " " + outcome + "; daemon alive" : "DAEMON DIED",
        before, Measure(), other);
}

void ReaderGone() {
    RepeatedToolCase("reader gone", "100 x `tarnisctl dump ModuleManager dump | true`",
                     "dump ModuleManager dump 2>/dev/null | true", "the reader went away",
                     "error lines for 100 failed dumps (rationed to 10 a minute)");
}

void DeepJson() {
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    RepeatedToolCase("deep JSON", "100 x intent with 1,001 nested arrays", "intent A '" + deep + "' 2>/dev/null",
                     "Tarnis-JsonUtil", "refused with an error line");
}

void FullPipes() {
    Cost before = Measure();
    // The holder says how many of its dumps failed once all have returned:
    // the daemon's own lines for them are rationed and cannot be counted on.
    int done[2];
    if (pipe(done) != 0) return;
    auto stop = AsShell([&](int ready) {
        close(done[0]);
        int fds[2];
        if (pipe(fds) != 0) _exit(2);
        fcntl(fds[1], F_SETFL, O_NONBLOCK);
        std::string block(65536, 'x');
        while (write(fds[1], block.data(), block.size()) > 0) {
        }
        fcntl(fds[1], F_SETFL, 0);
        std::atomic<int> failed{0};
        std::vector<std::thread> dumps;
        for (int i = 0; i < 16; ++i) {
            dumps.emplace_back([&] {
                auto binder = BpBinder::Connect(kSsi, SocketOf(kSsi));
                const char* args[] = {"ModuleManager", "dump"};
                if (!binder || AIBinder_dump(binder.get(), fds[1], args, 2) != STATUS_OK) ++failed;
            });
        }
        usleep(300000);
        Ready(ready);
        for (auto& t : dumps) t.join();
        const char count = static_cast<char>(failed.load());
        if (write(done[1], &count, 1) != 1) _exit(3);
    });
    close(done[1]);
    double other = OtherCallerMs();
    auto start = Clock::now();
    // The dumps end by themselves once their deadline passes.
    pollfd pfd{done[0], POLLIN, 0};
    char failed = 0;
    const bool ended = poll(&pfd, 1, 60000) == 1 && read(done[0], &failed, 1) == 1;
    const long doneMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count() + 300;
    close(done[0]);
    stop();
    Row("full pipes", "16 dumps at once onto a full pipe nobody reads",
        ended ? std::to_string(failed) + " dumps gave up; the last " + std::to_string(doneMs / 1000.0).substr(0, 4) +
                    " s after the other uid's call"
              : std::string("the dumps had not ended after 60 s"),
        before, Measure(), other);
}

void DescriptorLimit() {
    StopDaemon();
    StartDaemon(256);
    Cost before = Measure();
    // 400 idle connections from 16 uids (25 each, to both services). Each
    // child counts how its connections ended only when told, after all are in.
    struct Child {
        pid_t pid;
        int go;
        int counts;
    };
    std::vector<Child> children;
    for (int u = 0; u < 16; ++u) {
        int ready[2], go[2], counts[2];
        if (pipe(ready) != 0 || pipe(go) != 0 || pipe(counts) != 0) exit(1);
        pid_t child = fork();
        if (child == 0) {
            if (setgid(kShellUid + u) != 0 || setuid(kShellUid + u) != 0) _exit(99);
            std::vector<unique_fd> held;
            for (int i = 0; i < 25; ++i) held.push_back(WireIo::Connect(SocketOf(i % 2 ? kSsi : kIntl), 1000));
            Ready(ready[1]);
            char c;
            if (read(go[0], &c, 1) != 1) _exit(2);
            // Refused (told why), closed later to admit another uid (end of
            // stream without a word), or still held.
            uint32_t n[2] = {0, 0};
            for (auto& conn : held) {
                uint32_t status;
                android::Parcel reply;
                std::string refusal;
                WireIo::Receive(conn.get(), &status, &reply, 0, &refusal);
                pollfd pfd{conn.get(), POLLIN | POLLRDHUP, 0};
                if (!refusal.empty()) {
                    ++n[0];
                } else if (poll(&pfd, 1, 0) > 0) {
                    ++n[1];
                }
            }
            if (write(counts[1], n, sizeof(n)) != sizeof(n)) _exit(3);
            pause();
            _exit(0);
        }
        close(ready[1]);
        char c;
        if (read(ready[0], &c, 1) != 1) fprintf(stderr, "hostile: child failed\n");
        close(ready[0]);
        children.push_back({child, go[1], counts[0]});
    }
    double other = OtherCallerMs();
    sleep(6);
    Cost after = Measure();
    size_t told = 0, evicted = 0;
    for (auto& child : children) {
        uint32_t n[2] = {0, 0};
        if (write(child.go, "x", 1) != 1 || read(child.counts, n, sizeof(n)) != sizeof(n)) {
            fprintf(stderr, "hostile: child failed\n");
        }
        told += n[0];
        evicted += n[1];
        kill(child.pid, SIGKILL);
        waitpid(child.pid, nullptr, 0);
        close(child.go);
        close(child.counts);
    }
    Row("ulimit -n 256", "400 idle connections from 16 uids, held 6 s, then a call from a 17th",
        std::to_string(400 - told - evicted) + " held, " + std::to_string(told) + " refused with a reason, " +
            std::to_string(evicted) + " closed to admit newcomers (of their own uid or others)",
        before, after, other);
    StopDaemon();
    StartDaemon(-1);
}

void IdleFlood() {
    Cost before = Measure();
    int toldPipe[2];
    if (pipe(toldPipe) != 0) exit(1);
    auto stop = AsShell([&](int ready) {
        std::vector<unique_fd> held;
        for (int i = 0; i < 1024; ++i) held.push_back(WireIo::Connect(SocketOf(kSsi), 1000));
        usleep(200000);
        // Still open: nothing to read yet. The others were refused with a
        // reason, or closed to make room for this uid's newer ones.
        uint32_t counts[2] = {0, 0};
        for (auto& c : held) {
            char byte;
            if (recv(c.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && errno == EAGAIN) ++counts[0];
        }
        counts[1] = CountRefusals(held, "too many connections from uid 2000");
        if (write(toldPipe[1], counts, sizeof(counts)) != sizeof(counts)) _exit(2);
        Ready(ready);
    });
    uint32_t counts[2] = {0, 0};
    if (read(toldPipe[0], counts, sizeof(counts)) != sizeof(counts)) counts[0] = counts[1] = 0;
    double other = OtherCallerMs();
    sleep(6);
    Cost after = Measure();
    stop();
    Row("idle flood", "1,024 idle connections from one uid, held 6 s",
        std::to_string(counts[0]) + " held, " + std::to_string(counts[1]) +
            " told \"too many connections from uid 2000\", " + std::to_string(1024 - counts[0] - counts[1]) +
            " closed to admit the uid's newer ones",
        before, after, other);
    close(toldPipe[0]);
    close(toldPipe[1]);
}

void BufferBudget() {
    Cost before = Measure();
    int keptPipe[2];
    if (pipe(keptPipe) != 0) exit(1);
    auto stop = AsShell([&](int ready) {
        const uint32_t size = WireIo::kMaxDataSize - 1024;
        std::string body(size - 1, 'b');
        std::vector<unique_fd> held;
        for (int i = 0; i < 64; ++i) {
            held.push_back(WireIo::Connect(SocketOf(kSsi), 1000));
            WireHeader header{WireIo::kRequestMagic, 1, size, 0};
            send(held.back().get(), &header, sizeof(header), MSG_NOSIGNAL);
            size_t sent = 0;
            while (sent < body.size()) {
                ssize_t k = send(held.back().get(), body.data() + sent, body.size() - sent, MSG_NOSIGNAL);
                if (k <= 0) break;
                sent += static_cast<size_t>(k);
            }
        }
        usleep(300000);
        uint32_t kept = 0;
        for (auto& c : held) {
            pollfd pfd{c.get(), POLLIN | POLLRDHUP, 0};
            if (poll(&pfd, 1, 0) == 0) ++kept;
        }
        if (write(keptPipe[1], &kept, sizeof(kept)) != sizeof(kept)) _exit(2);
        Ready(ready);
    });
    uint32_t kept = 0;
    if (read(keptPipe[0], &kept, sizeof(kept)) != sizeof(kept)) kept = 0;
    double other = OtherCallerMs();
    Cost during = Measure();
    stop();
    usleep(500000);
    Cost after = Measure();
    Row("buffer budget", "64 unfinished transactions of just under 1 MiB from one uid",
        std::to_string(kept) + " kept, " + std::to_string(64 - kept) + " closed over the uid's budget; RSS " +
            std::to_string(during.rssKb) + " KiB while held",
        before, after, other);
    close(keptPipe[0]);
    close(keptPipe[1]);
}

void LoadWhileHeld() {
    Cost before = Measure();
    std::vector<std::function<void()>> stops;
    // 1,000 idle connections from 4 uids, 125 per uid and service.
    for (int u = 0; u < 4; ++u) {
        stops.push_back(AsUid(kShellUid + u, [](int ready) {
            std::vector<unique_fd> held;
            for (int i = 0; i < 250; ++i) held.push_back(WireIo::Connect(SocketOf(i % 2 ? kSsi : kIntl), 1000));
            Ready(ready);
            pause();
        }));
    }
    std::mutex lock;
    std::vector<double> latencies;
    std::atomic<int> failures{0};
    int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    auto start = Clock::now();
    std::vector<std::thread> clients;
    for (int t = 0; t < 50; ++t) {
        clients.emplace_back([&] {
            auto binder = BpBinder::Connect(kSsi, SocketOf(kSsi));
            std::vector<double> mine;
            for (int i = 0; i < 20; ++i) {
                const char* args[] = {"ModuleManager", "dump"};
                auto t0 = Clock::now();
                if (!binder || AIBinder_dump(binder.get(), devNull, args, 2) != STATUS_OK) {
                    ++failures;
                    continue;
                }
                mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
            }
            std::lock_guard<std::mutex> g(lock);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
        });
    }
    for (auto& c : clients) c.join();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    Cost after = Measure();
    for (auto& s : stops) s();
    close(devNull);
    std::sort(latencies.begin(), latencies.end());
    auto pct = [&](double p) { return latencies.empty() ? -1 : latencies[static_cast<size_t>(p * (latencies.size() - 1))]; };
    char did[256];
    snprintf(did, sizeof(did), "%zu of 1000 served, %d failed, in %.2f s; p50 %.2f ms, p99 %.2f ms",
             latencies.size(), failures.load(), seconds, pct(0.5), pct(0.99));
    Row("load", "1,000 dumps from 50 clients while 4 uids hold 1,000 idle connections", did, before, after,
        OtherCallerMs());
}

}  // namespace

int main(int argc, char** argv) {
    if (geteuid() != 0) {
        fprintf(stderr, "hostile: needs root (clients run as other uids)\n");
        return 1;
    }
    if (argc > 1) gDaemonPath = argv[1];
    if (argc > 2) gCtlPath = argv[2];
    platform::SetStderrLogLevel(ANDROID_LOG_SILENT);
    signal(SIGPIPE, SIG_IGN);
    char root[] = "/tmp/tarnis-hostile-XXXXXX";
    if (mkdtemp(root) == nullptr) return 1;
    chmod(root, 0755);
    gRoot = root;
    platform::SetRoot(gRoot);
    BpBinder::SetCallTimeoutMs(30000);
    StartDaemon(-1);
    printf("| case | sent | what the daemon did | CPU ticks | RSS / peak | log lines | other uid's call |\n");
    printf("|---|---|---|---|---|---|---|\n");
    ReaderGone();
    DeepJson();
    FullPipes();
    DescriptorLimit();
    IdleFlood();
    BufferBudget();
    LoadWhileHeld();
    bool alive = DaemonAlive();
    StopDaemon();
    printf("\nticks: %ld per second; daemon %s at the end\n", sysconf(_SC_CLK_TCK), alive ? "alive" : "DEAD");
    Shell(std::string("rm -rf ") + root);
    return alive ? 0 : 1;
}
