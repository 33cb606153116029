#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <zlib.h>

namespace velmar {
namespace kolto {

// Files are cut into blocks of this size that the workers deflate on their
// own, so that one big log keeps every core busy too. Each block is primed
// with the 32 KiB before it, so matches still reach back across the cut, and
// all but the last end on a sync flush (byte-aligned, 5 bytes), which lets
// the pieces be written one after the other as a single deflate stream.
// bench/ZipBench.cpp measured the archive 0.03 % larger than with one stream
// per file at this size; smaller blocks lose more at each cut.
constexpr size_t kBlockSize = 256 * 1024;
constexpr size_t kWindowSize = 32 * 1024;

// The bound on memory in flight: the blocks read but not yet written (their
// input, priming window and room for the deflated output, the block being read
// included) never hold more than this per worker. At most
// kMaxWorkers * 4 MiB = 32 MiB, 8 MiB on a two-core device; about seven full
// blocks, or hundreds of small files, per worker.
constexpr size_t kBytesInFlightPerWorker = 4 << 20;
// A phone may have eight or more cores; beyond this the writer, one thread,
// is the limit anyway.
constexpr unsigned kMaxWorkers = 8;

// One piece of a file: its bytes, the window before it, and what a worker
// made of them.
struct Block {
    std::unique_ptr<unsigned char[]> in;
    size_t inSize = 0;
    size_t inCapacity = 0;
    // The bytes just before `in` in its file, up to 32 KiB.
    std::vector<unsigned char> window;
    bool last = false;
    size_t charge = 0;  // counted against the bytes in flight
    // Set by the worker.
    std::unique_ptr<unsigned char[]> out;
    size_t outSize = 0;
    uLong crc = 0;
    int dataType = Z_UNKNOWN;
    bool done = false;  // under the pool's lock
};

// Room for a block's deflated bytes.
size_t OutputRoom(size_t inSize);

// Workers for a pack: the CPUs this thread may use, at most kMaxWorkers.
unsigned WorkerCount();

class Deflater;

// Deflates blocks on worker threads, in the order they were given. Without
// any thread (none could be started) the caller deflates them itself.
class DeflatePool {
public:
    explicit DeflatePool(unsigned workers);
    ~DeflatePool();
    DeflatePool(const DeflatePool&) = delete;
    DeflatePool& operator=(const DeflatePool&) = delete;

    size_t workers() const { return threads_.empty() ? 1 : threads_.size(); }

    void Submit(const std::shared_ptr<Block>& block);
    // Until the worker is done with `block`.
    void Wait(const Block& block);

private:
    void Work();

    std::mutex lock_;
    std::condition_variable ready_;
    std::condition_variable finished_;
    std::deque<std::shared_ptr<Block>> queue_;
    bool stop_ = false;
    std::vector<std::thread> threads_;
    std::unique_ptr<Deflater> inline_;
};

}  // namespace kolto
}  // namespace velmar
