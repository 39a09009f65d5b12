// Single-producer single-consumer float queue from an audio callback to a
// worker. The producer drops a block whole when it does not fit and raises
// an overflow flag; the consumer drains in runs through a scratch buffer.
//
// Producer side (audio thread): try_push only. No locks, no allocation, no
// system calls; at most two memcpys.
// Consumer side (one worker thread): take_overflow, drain.
// reset() only while the producer is known to be idle (device closed).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace ws::frame {

template <size_t Capacity>
class SampleRing {
    static_assert(Capacity > 0 && (Capacity & (Capacity - 1)) == 0, "capacity is a power of two");
    static constexpr uint64_t kMask = Capacity - 1;

public:
    static constexpr size_t capacity = Capacity;

    SampleRing() : storage_(new float[Capacity]()) {}
    SampleRing(const SampleRing&) = delete;
    SampleRing& operator=(const SampleRing&) = delete;

    // Audio thread. Returns false, sets the overflow flag and writes nothing
    // when the block does not fit whole.
    bool try_push(const float* samples, uint32_t count) {
        const uint64_t w = write_.load(std::memory_order_relaxed);
        const uint64_t r = read_.load(std::memory_order_acquire);
        // Written as free space against count (r - w + capacity wraps back
        // to capacity - used): a block exactly filling the ring fits.
        if (!(r - w + Capacity >= count)) {
            overflow_.store(1, std::memory_order_relaxed);
            return false;
        }
        const size_t start = static_cast<size_t>(w & kMask);
        const size_t first = count < Capacity - start ? count : Capacity - start;
        std::memcpy(storage_.get() + start, samples, first * sizeof(float));
        if (count > first) std::memcpy(storage_.get(), samples + first, (count - first) * sizeof(float));
        write_.store(w + count, std::memory_order_release);
        return true;
    }

    // Worker. True if a block was dropped since the last call.
    bool take_overflow() { return overflow_.exchange(0, std::memory_order_acq_rel) != 0; }

    // Worker. Hands everything published before the call to sink(run, n) in
    // runs of at most scratch_size samples, in order. The read counter moves
    // before each run is handed on, so the producer sees the space early.
    // Returns the number of samples drained.
    template <class Sink>
    uint64_t drain(float* scratch, size_t scratch_size, Sink&& sink) {
        uint64_t r = read_.load(std::memory_order_relaxed);
        const uint64_t w = write_.load(std::memory_order_acquire);
        uint64_t pending = w - r;
        const uint64_t total = pending;
        while (pending > 0) {
            const size_t run = static_cast<size_t>(pending < scratch_size ? pending : scratch_size);
            const size_t start = static_cast<size_t>(r & kMask);
            const size_t first = run < Capacity - start ? run : Capacity - start;
            std::memcpy(scratch, storage_.get() + start, first * sizeof(float));
            if (run > first) std::memcpy(scratch + first, storage_.get(), (run - first) * sizeof(float));
            read_.store(r + run, std::memory_order_release);
            sink(static_cast<const float*>(scratch), run);
            r += run;
            pending -= run;
        }
        return total;
    }

    // Only while no producer runs.
    void reset() {
        write_.exchange(0);
        read_.exchange(0);
        overflow_.exchange(0);
    }

    uint64_t pending() const {
        return write_.load(std::memory_order_acquire) - read_.load(std::memory_order_acquire);
    }

private:
    // Each counter has one writer; keep them on separate cache lines.
    alignas(64) std::atomic<uint64_t> write_{0};
    alignas(64) std::atomic<uint64_t> read_{0};
    alignas(64) std::atomic<uint8_t> overflow_{0};
    std::unique_ptr<float[]> storage_;
};

}  // namespace ws::frame
