// The family frame's rules, on a test family.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "frame/family.hpp"

namespace {

struct TestEngine {
    static inline std::atomic<int> alive{0};
    bool ready;
    int value = 7;
    explicit TestEngine(bool ok) : ready(ok) { ++alive; }
    ~TestEngine() { --alive; }
    bool context_ready() const { return ready; }
};

constinit ws::frame::Family<TestEngine> g_family;

int create(bool ok = true) {
    return g_family.create([ok] { return std::make_unique<TestEngine>(ok); });
}

class FamilyTest : public ::testing::Test {
protected:
    void TearDown() override { g_family.destroy(); }
};

TEST_F(FamilyTest, CreateAndDestroyAnswerByTheInstanceTheyFind) {
    EXPECT_EQ(g_family.destroy(), ws_not_created);
    EXPECT_EQ(create(false), ws_backend_init_failed);  // a failed context leaves no instance
    EXPECT_EQ(TestEngine::alive.load(), 0);
    EXPECT_FALSE(g_family.has_instance());
    ASSERT_EQ(create(), ws_ok);
    g_family.call([](TestEngine& e) { e.value = 42; return 0; });
    EXPECT_EQ(create(), ws_already_created);  // and the first instance stays
    EXPECT_EQ(TestEngine::alive.load(), 1);
    EXPECT_EQ(g_family.call([](TestEngine& e) { return e.value; }), 42);
    EXPECT_EQ(g_family.destroy(), ws_ok);
    EXPECT_EQ(g_family.destroy(), ws_not_created);
    EXPECT_EQ(TestEngine::alive.load(), 0);
}

TEST_F(FamilyTest, InstanceIsCheckedBeforePointers) {
    const int* null = nullptr;
    int x = 0;
    bool ran = false;
    auto work = [&](TestEngine&) { ran = true; return 5; };
    EXPECT_EQ(g_family.call(work, null), ws_not_created);
    EXPECT_EQ(g_family.call(work, &x), ws_not_created);
    ASSERT_EQ(create(), ws_ok);
    EXPECT_EQ(g_family.call(work, null), ws_invalid_argument);
    EXPECT_EQ(g_family.call(work, &x, null), ws_invalid_argument);
    EXPECT_FALSE(ran);
    EXPECT_EQ(g_family.call(work, &x, &x), 5);
    EXPECT_TRUE(ran);
    EXPECT_EQ(g_family.call([](TestEngine&) { return int64_t{1} << 40; }), int64_t{1} << 40);  // wide results
}

// Concurrent create/call/destroy from several threads: the mutex serialises
// them, so exactly the live engines exist and no call sees a dead one.
TEST_F(FamilyTest, CallsAreSerialisedAcrossThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> bad{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                switch ((i + t) % 3) {
                    case 0: create(); break;
                    case 1: g_family.destroy(); break;
                    default:
                        g_family.call([&](TestEngine& e) {
                            if (e.value != 7 || TestEngine::alive.load() != 1) ++bad;
                            return 0;
                        });
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(bad.load(), 0);
    g_family.destroy();
    EXPECT_EQ(TestEngine::alive.load(), 0);
}

}  // namespace
