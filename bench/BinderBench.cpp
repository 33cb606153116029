// Binder stand-in throughput and latency: a small call (reportSimpleEvent to a
// service that does nothing, served by another process's binder pool) against
// a bare Unix-socket request/reply of the same sizes in the same run.
//
//   build/bench/bench_BinderBench
//
// Besides Google Benchmark's table it prints the p50/p99 latency of the final
// run of each benchmark.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <aidl/velmar/system/tarnis/common/BnTarnisSsi.h>
#include <host/Host.h>
#include <log/log.h>

#include "platform/binder/NdkBinder.h"
#include "platform/binder/ServiceManager.h"
#include "platform/binder/WireIo.h"

using aidl::velmar::system::tarnis::common::BnTarnisSsi;
using aidl::velmar::system::tarnis::common::ITarnisSsi;

namespace {

const std::string kName = std::string(ITarnisSsi::descriptor) + "/default";
const std::string kEvent = "event";

class NullSsi : public BnTarnisSsi {
    ndk::ScopedAStatus reportSimpleEvent(int32_t, const std::string&) override { return ndk::ScopedAStatus::ok(); }
    ndk::ScopedAStatus reportEventV2(const std::string&, const std::string&, const std::string&, bool) override {
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportNativeFeatureEvent(const std::string&, const std::string&,
                                                const std::string&) override {
        return ndk::ScopedAStatus::ok();
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
                                         int32_t) override {
        return ndk::ScopedAStatus::ok();
    }
    ndk::ScopedAStatus reportTrelvoEvents(const std::string&, const std::string&, const std::vector<std::string>&,
                                          int32_t) override {
        return ndk::ScopedAStatus::ok();
    }
};

std::shared_ptr<ITarnisSsi> gSsi;
std::string gBarePath;
size_t gRequestSize = 0;
size_t gReplySize = 0;

// Latencies of the last run of each benchmark, merged over its threads.
std::mutex gLatencyLock;
std::map<std::string, std::vector<double>> gLatencies;

class LatencyRecorder {
public:
    LatencyRecorder(benchmark::State& state, const char* name)
        : state_(state), name_(std::string(name) + "/threads:" + std::to_string(state.threads())) {
        if (state.thread_index() == 0) {
            std::lock_guard<std::mutex> lock(gLatencyLock);
            gLatencies[name_].clear();
        }
        samples_.reserve(1 << 16);
    }
    ~LatencyRecorder() {
        std::lock_guard<std::mutex> lock(gLatencyLock);
        auto& all = gLatencies[name_];
        all.insert(all.end(), samples_.begin(), samples_.end());
        state_.SetItemsProcessed(state_.iterations());
    }
    void add(std::chrono::steady_clock::time_point start) {
        samples_.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }

private:
    benchmark::State& state_;
    std::string name_;
    std::vector<double> samples_;
};

void BM_BinderCall(benchmark::State& state) {
    LatencyRecorder rec(state, "BM_BinderCall");
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (!gSsi->reportSimpleEvent(0, kEvent).isOk()) {
            state.SkipWithError("call failed");
            break;
        }
        rec.add(start);
    }
}
BENCHMARK(BM_BinderCall)->Threads(1)->Threads(8)->UseRealTime();

bool ReadFull(int fd, char* buf, size_t n) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = read(fd, buf + got, n - got);
        if (r <= 0) return false;
        got += r;
    }
    return true;
}

int ConnectBare() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, gBarePath.c_str(), sizeof(addr.sun_path) - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void BM_BareSocket(benchmark::State& state) {
    LatencyRecorder rec(state, "BM_BareSocket");
    int fd = ConnectBare();
    std::vector<char> request(gRequestSize, 'q'), reply(gReplySize);
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
            !ReadFull(fd, reply.data(), reply.size())) {
            state.SkipWithError("bare socket failed");
            break;
        }
        rec.add(start);
    }
    close(fd);
}
BENCHMARK(BM_BareSocket)->Threads(1)->Threads(8)->UseRealTime();

// The baseline server: one thread per connection, reads a request, writes a reply.
void RunBareServer() {
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, gBarePath.c_str(), sizeof(addr.sun_path) - 1);
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0 || listen(listener, 64) < 0) _exit(1);
    for (;;) {
        int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) continue;
        std::thread([conn] {
            std::vector<char> request(gRequestSize), reply(gReplySize, 'r');
            while (ReadFull(conn, request.data(), request.size()) &&
                   write(conn, reply.data(), reply.size()) == static_cast<ssize_t>(reply.size())) {
            }
            close(conn);
        }).detach();
    }
}

}  // namespace

int main(int argc, char** argv) {
    platform::SetStderrLogLevel(ANDROID_LOG_WARN);
    char root[] = "/tmp/binder-bench-XXXXXX";
    if (mkdtemp(root) == nullptr) return 1;
    platform::SetRoot(root);
    gBarePath = std::string(root) + "/bare.sock";

    // The same byte counts as the binder call: header + parcel each way.
    {
        android::Parcel request, reply;
        request.writeInterfaceToken(android::String16(ITarnisSsi::descriptor));
        request.writeInt32(0);
        request.writeUtf8AsUtf16(kEvent);
        reply.writeStatus(ndk::ScopedAStatus::ok());
        gRequestSize = sizeof(android::WireHeader) + request.dataSize();
        gReplySize = sizeof(android::WireHeader) + reply.dataSize();
    }

    pid_t server = fork();
    if (server == 0) {
        auto impl = ndk::SharedRefBase::make<NullSsi>();
        if (AServiceManager_addService(impl->asBinder().get(), kName.c_str()) != STATUS_OK) _exit(1);
        ABinderProcess_joinThreadPool();
        _exit(1);
    }
    pid_t bare = fork();
    if (bare == 0) {
        RunBareServer();
        _exit(1);
    }
    for (int i = 0; i < 500 && gSsi == nullptr; ++i) {
        gSsi = ITarnisSsi::fromBinder(AServiceManager_checkService(kName.c_str()));
        if (gSsi == nullptr) usleep(10000);
    }
    for (int i = 0; i < 500 && access(gBarePath.c_str(), F_OK) != 0; ++i) usleep(10000);
    usleep(50000);
    if (gSsi == nullptr) {
        fprintf(stderr, "binder bench: the service did not start\n");
        return 1;
    }
    printf("request %zu bytes, reply %zu bytes\n", gRequestSize, gReplySize);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    for (auto& [name, samples] : gLatencies) {
        if (samples.empty()) continue;
        std::sort(samples.begin(), samples.end());
        printf("%-36s calls %8zu  p50 %7.1f us  p99 %7.1f us\n", name.c_str(), samples.size(),
               samples[samples.size() / 2], samples[samples.size() * 99 / 100]);
    }
    kill(server, SIGKILL);
    kill(bare, SIGKILL);
    waitpid(server, nullptr, 0);
    waitpid(bare, nullptr, 0);
    std::string cleanup = std::string("rm -rf ") + root;
    return system(cleanup.c_str()) == 0 ? 0 : 1;
}
