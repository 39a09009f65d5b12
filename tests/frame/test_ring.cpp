// The SPSC ring's free-space rule, draining in runs, a seeded two-thread run
// (blocks of every size wrapping the end) that checks every sample arrives
// once and in order; the sequence lock's reads, alone and racing a writer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "frame/sample_ring.hpp"
#include "frame/seqlock.hpp"

namespace {

using Ring = ws::frame::SampleRing<1024>;

std::vector<float> ramp(size_t n, float start = 0.0f) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
    return v;
}

std::vector<float> drain_all(Ring& ring, size_t scratch_size, std::vector<size_t>* runs = nullptr) {
    std::vector<float> scratch(scratch_size), out;
    ring.drain(scratch.data(), scratch.size(), [&](const float* p, size_t n) {
        out.insert(out.end(), p, p + n);
        if (runs) runs->push_back(n);
    });
    return out;
}

TEST(SampleRing, ABlockExactlyFillingTheFreeSpaceFitsOneMoreDoesNot) {
    Ring ring;
    const auto a = ramp(1000);
    ASSERT_TRUE(ring.try_push(a.data(), 1000));
    const auto b = ramp(25, 1000);
    EXPECT_FALSE(ring.try_push(b.data(), 25));  // 24 free
    EXPECT_TRUE(ring.take_overflow());
    EXPECT_FALSE(ring.take_overflow());  // taken once
    EXPECT_EQ(ring.pending(), 1000u);    // the dropped block left no trace
    EXPECT_TRUE(ring.try_push(b.data(), 24));
    EXPECT_FALSE(ring.take_overflow());
    EXPECT_EQ(ring.pending(), 1024u);
    EXPECT_TRUE(ring.try_push(b.data(), 0));  // an empty block always fits
    std::vector<size_t> runs;
    const auto got = drain_all(ring, 300, &runs);  // in runs of the scratch size
    EXPECT_EQ(runs, (std::vector<size_t>{300, 300, 300, 124}));
    ASSERT_EQ(got.size(), 1024u);
    EXPECT_EQ(got[999], 999.0f);
    EXPECT_EQ(got[1000], 1000.0f);
    EXPECT_EQ(got[1023], 1023.0f);
    const auto big = ramp(1025);  // larger than the ring: never fits, even empty
    EXPECT_FALSE(ring.try_push(big.data(), 1025));
    EXPECT_TRUE(ring.take_overflow());
    EXPECT_TRUE(ring.try_push(a.data(), 600));
    EXPECT_FALSE(ring.try_push(a.data(), 600));
    ring.reset();  // empties the ring and clears the flag
    EXPECT_EQ(ring.pending(), 0u);
    EXPECT_FALSE(ring.take_overflow());
    EXPECT_TRUE(ring.try_push(a.data(), 1000));
}

// A producer pushing seeded block sizes against a consumer draining at its
// own pace: what arrives is exactly the accepted blocks, in order.
TEST(SampleRing, TwoThreadsDeliverEveryAcceptedBlockInOrder) {
    ws::frame::SampleRing<4096> ring;
    constexpr uint64_t kTotal = 2'000'000;
    std::atomic<bool> done{false};
    std::thread producer([&] {
        std::mt19937 rng(42);
        std::uniform_int_distribution<uint32_t> size(1, 700);
        std::vector<float> block(700);
        uint64_t value = 0, sent = 0;
        while (sent < kTotal) {
            const uint32_t n = size(rng);
            for (uint32_t i = 0; i < n; ++i) block[i] = static_cast<float>((value + i) % 16777216);
            if (ring.try_push(block.data(), n)) value += n;
            sent += n;
        }
        done = true;
    });
    uint64_t expected = 0;
    bool ordered = true;
    std::vector<float> scratch(512);
    auto sink = [&](const float* p, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            if (p[i] != static_cast<float>(expected % 16777216)) ordered = false;
            ++expected;
        }
    };
    while (!done) ring.drain(scratch.data(), scratch.size(), sink);
    ring.drain(scratch.data(), scratch.size(), sink);
    producer.join();
    EXPECT_TRUE(ordered);
    EXPECT_GT(expected, 0u);
    EXPECT_EQ(ring.pending(), 0u);
}

struct Record {
    uint64_t a, b, c, check;
};

// A writer publishing records whose fields agree with each other, and a
// reader that must never see a mix of two records, nor anything before the
// first record or after a clear.
TEST(SeqLock, ReadersNeverSeeATornRecord) {
    ws::frame::SeqLock<Record> lock;
    Record untouched{1, 2, 3, 4};
    EXPECT_FALSE(lock.read(&untouched));
    EXPECT_EQ(untouched.a, 1u);
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> pause_point{0};
    std::thread writer([&] {
        // A short pause between records, as a real writer has: a writer
        // that never pauses leaves no window for a consistent read at all.
        for (uint64_t i = 1; !stop.load(std::memory_order_relaxed); ++i) {
            lock.publish({i, i * 3, i * 7, i * 11});
            for (int spin = 0; spin < 200; ++spin) pause_point.fetch_add(1, std::memory_order_relaxed);
        }
    });
    // Until enough consistent reads, however the threads are scheduled: a
    // writer preempted mid-record fails every read until it runs again.
    constexpr uint64_t kReads = 20000;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    uint64_t reads = 0, torn = 0, last = 0, backwards = 0;
    while (reads < kReads && std::chrono::steady_clock::now() < deadline) {
        Record r;
        if (!lock.read(&r)) continue;
        ++reads;
        if (r.b != r.a * 3 || r.c != r.a * 7 || r.check != r.a * 11) ++torn;
        if (r.a < last) ++backwards;
        last = r.a;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(reads, kReads) << "consistent reads within 10 s";
    lock.clear();
    EXPECT_FALSE(lock.read(&untouched));
}

}  // namespace
