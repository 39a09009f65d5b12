// Host-to-audio-thread command queue: 32 slots, one producer at a time (the
// engine's mutexes serialise it), one consumer (the audio thread). Neither
// side ever waits. When the queue is full the newest queued command is
// replaced instead of failing the call: the host's latest wish wins, and
// everything queued before it still runs in order.
//
// Replacing a slot that is already published races with the consumer, who
// may be copying that very slot. Each slot therefore has a small claim word:
// the consumer claims a slot before copying it, the producer claims it before
// rewriting it, and whoever loses backs off without waiting (the producer
// then finds room, because a consumer copying the newest slot has taken all
// the others; the consumer leaves the slot for its next drain). NOTES.md has
// the full argument.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

namespace ws::metronome {

template <class T, uint32_t N = 32>
class CommandQueue {
    static_assert(N >= 2 && (N & (N - 1)) == 0, "counters wrap: N must divide 2^32");
    static_assert(std::atomic<uint32_t>::is_always_lock_free, "the audio thread must not lock");

public:
    static constexpr uint32_t kCapacity = N;

    enum class Push { queued, replaced_newest };

    // Producer side. Never blocks, never fails, allocates nothing.
    Push push(const T& item) {
        const uint32_t w = write_.load(std::memory_order_relaxed);  // only the producer writes it
        if (w - read_.load(std::memory_order_acquire) < N) return append(w, item);
        Slot& newest = slots_[(w - 1) % N];
        uint32_t idle = kIdle;
        if (newest.claim.compare_exchange_strong(idle, kWriting, std::memory_order_acq_rel,
                                                 std::memory_order_acquire)) {
            // Still full? The consumer may have taken the newest slot (and so
            // all the others) between the first look and the claim.
            if (w - read_.load(std::memory_order_acquire) < N) {
                newest.claim.store(kIdle, std::memory_order_release);
                return append(w, item);
            }
            newest.item = item;
            newest.claim.store(kIdle, std::memory_order_release);
            return Push::replaced_newest;
        }
        // The consumer is copying the newest slot: it has taken every other one.
        return append(w, item);
    }

    // Consumer side (audio thread). Copies the oldest command into `out`;
    // false when there is none now.
    bool pop(T& out) {
        const uint32_t r = read_.load(std::memory_order_relaxed);  // only the consumer writes it
        if (r == write_.load(std::memory_order_acquire)) return false;
        Slot& slot = slots_[r % N];
        uint32_t idle = kIdle;
        if (!slot.claim.compare_exchange_strong(idle, kReading, std::memory_order_acq_rel,
                                                std::memory_order_relaxed)) {
            return false;  // being replaced right now: take it on the next drain
        }
        out = slot.item;
        // Release the claim before advancing: a claim is then only ever held
        // on the slot `read` names, which is what lets the producer read a
        // failed claim as "the consumer is at the newest slot". (Held past
        // the advance, a lingering claim on an older lap of the slot would
        // send the producer to append over a command not yet taken.)
        slot.claim.store(kIdle, std::memory_order_release);
        read_.store(r + 1, std::memory_order_release);
        return true;
    }

    // Approximate from either side; exact when the other side is quiet.
    uint32_t size() const {
        return write_.load(std::memory_order_acquire) - read_.load(std::memory_order_acquire);
    }

private:
    static constexpr uint32_t kIdle = 0, kWriting = 1, kReading = 2;

    struct Slot {
        std::atomic<uint32_t> claim{kIdle};
        T item{};
    };

    Push append(uint32_t w, const T& item) {
        slots_[w % N].item = item;
        write_.store(w + 1, std::memory_order_release);
        return Push::queued;
    }

    std::array<Slot, N> slots_{};
    // Apart, so the two threads do not bounce one cache line.
    alignas(64) std::atomic<uint32_t> write_{0};
    alignas(64) std::atomic<uint32_t> read_{0};
};

}  // namespace ws::metronome
