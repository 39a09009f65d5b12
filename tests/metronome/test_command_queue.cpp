// The command queue: order, the full-queue rule (the newest waiting command
// is replaced), and a two-thread run in which every command is either
// received once, in order and untorn, or accounted for as replaced.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "metronome/command_queue.hpp"

namespace {

using Queue = ws::metronome::CommandQueue<uint64_t>;

TEST(CommandQueue, KeepsOrderAndReplacesTheNewestWhenFull) {
    Queue q;
    std::vector<bool> replaced;
    for (uint64_t v = 1; v <= 40; ++v) replaced.push_back(q.push(v) == Queue::Push::replaced_newest);
    for (size_t i = 0; i < 40; ++i) EXPECT_EQ(replaced[i], i >= 32) << i + 1;
    EXPECT_EQ(q.size(), 32u);
    std::vector<uint64_t> got;
    uint64_t v;
    while (q.pop(v)) got.push_back(v);
    std::vector<uint64_t> expect;
    for (uint64_t i = 1; i <= 31; ++i) expect.push_back(i);
    expect.push_back(40);  // 32 .. 39 were each replaced by the next
    EXPECT_EQ(got, expect);
    // Room again: a push after the drain queues normally.
    EXPECT_EQ(q.push(41), Queue::Push::queued);
    ASSERT_TRUE(q.pop(v));
    EXPECT_EQ(v, 41u);
    EXPECT_FALSE(q.pop(v));
}

struct Item {
    uint64_t seq = 0;
    uint64_t check = 0;  // derived from seq, so a torn copy shows
    uint64_t pad[6] = {};
};

uint64_t mix(uint64_t x) {
    x ^= x >> 33;
    x *= 0xff51afd7ed558ccdULL;
    x ^= x >> 33;
    return x;
}

TEST(CommandQueue, TwoThreadsLoseNothingButReplacedCommands) {
    ws::metronome::CommandQueue<Item> q;
    constexpr uint64_t kCount = 200000;
    std::atomic<bool> done{false};
    std::vector<uint64_t> lost;
    std::thread producer([&] {
        uint64_t newest_queued = 0;
        for (uint64_t s = 1; s <= kCount; ++s) {
            Item it;
            it.seq = s;
            it.check = mix(s);
            for (auto& p : it.pad) p = s;
            if (q.push(it) == decltype(q)::Push::replaced_newest) lost.push_back(newest_queued);
            newest_queued = s;
            if (s % 64 == 0) std::this_thread::yield();  // let the queue drain now and then
        }
        done.store(true, std::memory_order_release);
    });
    std::vector<uint64_t> got;
    got.reserve(kCount);
    Item it;
    bool torn = false;
    for (;;) {
        const bool finished = done.load(std::memory_order_acquire);
        // Drain like an audio callback: everything waiting, then a pause in
        // which the producer may fill the queue and start replacing.
        while (q.pop(it)) {
            torn |= it.check != mix(it.seq);
            for (auto p : it.pad) torn |= p != it.seq;
            got.push_back(it.seq);
        }
        if (finished && q.size() == 0) break;
        std::this_thread::yield();
    }
    producer.join();
    EXPECT_FALSE(torn);
    for (size_t i = 1; i < got.size(); ++i) ASSERT_LT(got[i - 1], got[i]) << i;
    // Every command arrived exactly once or was replaced, never both.
    std::vector<char> seen(kCount + 1, 0);
    for (uint64_t s : got) seen[s] += 1;
    for (uint64_t s : lost) seen[s] += 2;
    for (uint64_t s = 1; s <= kCount; ++s) ASSERT_TRUE(seen[s] == 1 || seen[s] == 2) << s << " " << int(seen[s]);
    EXPECT_EQ(got.back(), kCount);
}

}  // namespace
