#define LOG_TAG "Tarnis-ZipFile"

#include "utils/DeflatePool.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <system_error>

#include <log/log.h>

namespace velmar {
namespace kolto {

// Deflate falls back to stored blocks (5 bytes of header per 16 KiB at most)
// where it cannot shrink the input, and the flush adds 5 more; anything
// beyond is still handled, by growing.
size_t OutputRoom(size_t inSize) { return inSize + (inSize >> 9) + 64; }

namespace {

// Carries a block's bytes in stored deflate blocks, when deflate cannot run
// (no memory for its state): the entry stays valid, only larger.
void StoreBlock(Block& block) {
    size_t chunks = std::max<size_t>(1, (block.inSize + 65534) / 65535);
    block.out.reset(new unsigned char[block.inSize + 5 * chunks]);
    unsigned char* out = block.out.get();
    size_t at = 0;
    do {
        const size_t len = std::min<size_t>(block.inSize - at, 65535);
        // The stream before is byte-aligned: every block ends on a flush.
        *out++ = block.last && at + len == block.inSize ? 1 : 0;
        *out++ = static_cast<unsigned char>(len);
        *out++ = static_cast<unsigned char>(len >> 8);
        *out++ = static_cast<unsigned char>(~len);
        *out++ = static_cast<unsigned char>(~len >> 8);
        memcpy(out, block.in.get() + at, len);
        out += len;
        at += len;
    } while (at < block.inSize);
    block.outSize = static_cast<size_t>(out - block.out.get());
}

}  // namespace

// One deflate state per worker, reset for every block.
class Deflater {
public:
    Deflater() {
        ok_ = deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8,
                           Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (ok_) deflateEnd(&stream_);
    }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    void Run(Block& block) {
        block.crc = crc32(0L, block.in.get(), static_cast<uInt>(block.inSize));
        if (!ok_ || !Deflate(block)) StoreBlock(block);
    }

private:
    bool Deflate(Block& block) {
        if (deflateReset(&stream_) != Z_OK) return false;
        if (!block.window.empty() &&
            deflateSetDictionary(&stream_, block.window.data(),
                                 static_cast<uInt>(block.window.size())) != Z_OK) {
            return false;
        }
        size_t room = OutputRoom(block.inSize);
        block.out.reset(new unsigned char[room]);
        stream_.next_in = block.in.get();
        stream_.avail_in = static_cast<uInt>(block.inSize);
        const int flush = block.last ? Z_FINISH : Z_SYNC_FLUSH;
        size_t produced = 0;
        for (;;) {
            stream_.next_out = block.out.get() + produced;
            stream_.avail_out = static_cast<uInt>(room - produced);
            const int rc = deflate(&stream_, flush);
            produced = room - stream_.avail_out;
            if (rc == Z_STREAM_END) break;
            if (rc != Z_OK && rc != Z_BUF_ERROR) return false;
            if (stream_.avail_out != 0) {
                // A sync flush is complete once deflate leaves room unused.
                if (!block.last) break;
                if (rc == Z_BUF_ERROR) return false;
                continue;
            }
            // Beyond zlib's own bound: not expected, but never truncated.
            std::unique_ptr<unsigned char[]> bigger(new unsigned char[room * 2]);
            memcpy(bigger.get(), block.out.get(), produced);
            block.out = std::move(bigger);
            room *= 2;
        }
        block.outSize = produced;
        block.dataType = stream_.data_type;
        return true;
    }

    z_stream stream_ {};
    bool ok_ = false;
};

unsigned WorkerCount() {
    // The CPUs this thread may use: packing is often pinned to some cores.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    long count = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : 0;
    if (count <= 0) count = sysconf(_SC_NPROCESSORS_ONLN);
    return static_cast<unsigned>(std::min<long>(std::max<long>(count, 1), kMaxWorkers));
}

DeflatePool::DeflatePool(unsigned workers) {
    for (unsigned i = 0; i < workers; ++i) {
        try {
            threads_.emplace_back([this] { Work(); });
        } catch (const std::system_error& e) {
            ALOGW("[%s] deflate thread not started: %s", "FlushFilesIfNeeded", e.what());
            break;
        }
    }
}

DeflatePool::~DeflatePool() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        stop_ = true;
    }
    ready_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void DeflatePool::Submit(const std::shared_ptr<Block>& block) {
    if (threads_.empty()) {
        if (!inline_) inline_.reset(new Deflater);
        inline_->Run(*block);
        block->done = true;
        return;
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        queue_.push_back(block);
    }
    ready_.notify_one();
}

void DeflatePool::Wait(const Block& block) {
    std::unique_lock<std::mutex> guard(lock_);
    finished_.wait(guard, [&block] { return block.done; });
}

void DeflatePool::Work() {
    pthread_setname_np(pthread_self(), "ZipDeflate");
    Deflater deflater;
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        ready_.wait(guard, [this] { return stop_ || !queue_.empty(); });
        if (queue_.empty()) return;
        std::shared_ptr<Block> block = std::move(queue_.front());
        queue_.pop_front();
        guard.unlock();
        deflater.Run(*block);
        guard.lock();
        block->done = true;
        finished_.notify_all();
    }
}

}  // namespace kolto
}  // namespace velmar
