// A record published by one writer and copied by any number of readers
// without blocking the writer. The sequence is odd while a write is under
// way and 0 until the first publication; a reader retries a bounded number
// of times and then gives up rather than wait.
//
// The record is held as 64-bit atomic words so that a reader overlapping a
// write copies torn data (detected by the sequence) instead of racing.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ws::frame {

template <class T>
class SeqLock {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % 8 == 0);
    static constexpr size_t kWords = sizeof(T) / 8;

public:
    static constexpr int kAttempts = 8;

    // Writer thread only.
    void publish(const T& value) {
        uint64_t words[kWords];
        std::memcpy(words, &value, sizeof(T));
        const uint64_t s = sequence_.load(std::memory_order_relaxed);
        sequence_.store(s + 1, std::memory_order_relaxed);
        // Release on each word keeps the odd sequence ahead of it: a reader
        // that sees any new word also sees that a write has begun.
        for (size_t i = 0; i < kWords; ++i) words_[i].store(words[i], std::memory_order_release);
        sequence_.store(s + 2, std::memory_order_release);
    }

    // Any thread. True and *out filled with a consistent copy; false when
    // nothing was published or no stable copy was seen in kAttempts tries.
    bool read(T* out) const {
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            const uint64_t before = sequence_.load(std::memory_order_acquire);
            if (before == 0) return false;
            if (before & 1) continue;
            uint64_t words[kWords];
            // Acquire on each word keeps the second sequence load after them.
            for (size_t i = 0; i < kWords; ++i) words[i] = words_[i].load(std::memory_order_acquire);
            if (sequence_.load(std::memory_order_relaxed) == before) {
                std::memcpy(out, words, sizeof(T));
                return true;
            }
        }
        return false;
    }

    // Forget the published record; only while no writer runs.
    void clear() { sequence_.exchange(0); }
    uint64_t sequence() const { return sequence_.load(std::memory_order_acquire); }

private:
    std::atomic<uint64_t> sequence_{0};
    std::atomic<uint64_t> words_[kWords] = {};
};

}  // namespace ws::frame
