// Message loop throughput and latency, each beside a plain mutex +
// condition-variable + deque queue run in the same program.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <host/Host.h>
#include <log/log.h>

#include "framework/TarnisHandler.h"
#include "framework/TarnisHandlerThread.h"
#include "framework/TarnisLooper.h"

// GCC pairs the replaced operator delete with the library's operator new when
// it inlines them and warns about malloc/free; both are ours here.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

// Every heap allocation of the process is counted, so that the benchmark can
// report how many a message costs in steady state.
static std::atomic<long> gAllocations{0};

void* operator new(std::size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) std::abort();
    return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t align) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    void* p = std::aligned_alloc(static_cast<std::size_t>(align),
                                 (size + static_cast<std::size_t>(align) - 1) &
                                     ~(static_cast<std::size_t>(align) - 1));
    if (p == nullptr) std::abort();
    return p;
}
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return std::aligned_alloc(static_cast<std::size_t>(align),
                              (size + static_cast<std::size_t>(align) - 1) &
                                  ~(static_cast<std::size_t>(align) - 1));
}
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using velmar::kolto::TarnisHandler;
using velmar::kolto::TarnisHandlerThread;

// The reference: one mutex, one condition variable, a deque of tasks.
class BaselineQueue {
public:
    BaselineQueue() : worker_([this] { loop(); }) {}
    ~BaselineQueue() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            stop_ = true;
        }
        cond_.notify_one();
        worker_.join();
    }
    void post(std::function<void()> task) {
        {
            std::lock_guard<std::mutex> guard(lock_);
            tasks_.push_back(std::move(task));
        }
        cond_.notify_one();
    }

private:
    void loop() {
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            cond_.wait(guard, [this] { return stop_ || !tasks_.empty(); });
            if (tasks_.empty()) return;
            std::function<void()> task = std::move(tasks_.front());
            tasks_.pop_front();
            guard.unlock();
            task();
            guard.lock();
        }
    }

    std::mutex lock_;
    std::condition_variable cond_;
    std::deque<std::function<void()>> tasks_;
    bool stop_ = false;
    std::thread worker_;
};

class TarnisTarget {
public:
    TarnisTarget()
        : thread_(TarnisHandlerThread::create("BenchLoop")), handler_(thread_->getLooper(), nullptr) {}
    ~TarnisTarget() { delete thread_; }
    void post(std::function<void()> task) { handler_.post(std::move(task)); }

private:
    TarnisHandlerThread* thread_;
    TarnisHandler handler_;
};

void WaitFor(const std::atomic<long>& counter, long target) {
    while (counter.load(std::memory_order_acquire) < target) std::this_thread::yield();
}

constexpr long kBatch = 10000;

template <class Target>
void Throughput(benchmark::State& state) {
    Target target;
    std::atomic<long> done{0};
    long sent = 0;
    // Warm the pools up before counting.
    for (long i = 0; i < kBatch; ++i) target.post([&done] { done.fetch_add(1, std::memory_order_release); });
    sent += kBatch;
    WaitFor(done, sent);

    long allocsBefore = gAllocations.load();
    for (auto _ : state) {
        for (long i = 0; i < kBatch; ++i) {
            target.post([&done] { done.fetch_add(1, std::memory_order_release); });
        }
        sent += kBatch;
        WaitFor(done, sent);
    }
    long messages = static_cast<long>(state.iterations()) * kBatch;
    state.SetItemsProcessed(messages);
    state.counters["allocs_per_msg"] =
        static_cast<double>(gAllocations.load() - allocsBefore) / static_cast<double>(messages);
}

// Posts at a steady 10,000 messages a second and measures from the post to
// the start of the task.
template <class Target>
void Latency(benchmark::State& state) {
    Target target;
    constexpr long kMessages = 5000;
    std::vector<long> latencyNs(kMessages);
    std::vector<double> p50s, p99s;
    for (auto _ : state) {
        std::atomic<long> done{0};
        auto start = std::chrono::steady_clock::now();
        for (long i = 0; i < kMessages; ++i) {
            auto due = start + std::chrono::microseconds(100 * i);
            while (std::chrono::steady_clock::now() < due) {
                auto left = due - std::chrono::steady_clock::now();
                if (left > std::chrono::microseconds(60)) {
                    std::this_thread::sleep_for(left - std::chrono::microseconds(50));
                }
            }
            auto posted = std::chrono::steady_clock::now();
            long* slot = &latencyNs[i];
            std::atomic<long>* counter = &done;
            target.post([posted, slot, counter] {
                *slot = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now() - posted)
                            .count();
                counter->fetch_add(1, std::memory_order_release);
            });
        }
        WaitFor(done, kMessages);
        std::vector<long> sorted = latencyNs;
        std::sort(sorted.begin(), sorted.end());
        p50s.push_back(sorted[kMessages / 2] / 1000.0);
        p99s.push_back(sorted[kMessages * 99 / 100] / 1000.0);
    }
    std::sort(p50s.begin(), p50s.end());
    std::sort(p99s.begin(), p99s.end());
    state.counters["p50_us"] = p50s[p50s.size() / 2];
    state.counters["p99_us"] = p99s[p99s.size() / 2];
    state.SetItemsProcessed(static_cast<long>(state.iterations()) * kMessages);
}

void BM_TarnisDispatchThroughput(benchmark::State& state) { Throughput<TarnisTarget>(state); }
void BM_BaselineDispatchThroughput(benchmark::State& state) { Throughput<BaselineQueue>(state); }
void BM_TarnisPostLatency10k(benchmark::State& state) { Latency<TarnisTarget>(state); }
void BM_BaselinePostLatency10k(benchmark::State& state) { Latency<BaselineQueue>(state); }

}  // namespace

BENCHMARK(BM_TarnisDispatchThroughput)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_BaselineDispatchThroughput)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_TarnisPostLatency10k)->UseRealTime()->Iterations(3);
BENCHMARK(BM_BaselinePostLatency10k)->UseRealTime()->Iterations(3);

int main(int argc, char** argv) {
    // The handler threads' start and stop lines would drown the report.
    platform::SetStderrLogLevel(ANDROID_LOG_WARN);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
