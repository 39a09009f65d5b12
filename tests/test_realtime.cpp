// The real-time rule, shown rather than promised: while the capture
// callback runs, nothing in it allocates, takes a mutex or sleeps. The
// library's callback probe tells this binary when a callback starts and
// ends; this binary interposes the allocation and locking entry points and
// counts the calls made in between on that thread.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <thread>

#include "frame/realtime.hpp"
#include "sound_server.hpp"
#include "woodshed/metronome.h"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace {
thread_local bool t_in_callback = false;
std::atomic<long> g_callbacks{0};
std::atomic<long> g_violations{0};

void note_call() {
    if (t_in_callback) g_violations.fetch_add(1, std::memory_order_relaxed);
}

void probe(bool entering) {
    t_in_callback = entering;
    if (entering) g_callbacks.fetch_add(1, std::memory_order_relaxed);
}

template <class Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" {
extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void __libc_free(void*);

void* malloc(size_t n) { note_call(); return __libc_malloc(n); }
void* calloc(size_t a, size_t b) { note_call(); return __libc_calloc(a, b); }
void* realloc(void* p, size_t n) { note_call(); return __libc_realloc(p, n); }
void free(void* p) { note_call(); __libc_free(p); }

int pthread_mutex_lock(pthread_mutex_t* m) {
    note_call();
    static auto real = next<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
    return real(m);
}
int pthread_mutex_trylock(pthread_mutex_t* m) {
    note_call();
    static auto real = next<int (*)(pthread_mutex_t*)>("pthread_mutex_trylock");
    return real(m);
}
int sem_wait(sem_t* s) {
    note_call();
    static auto real = next<int (*)(sem_t*)>("sem_wait");
    return real(s);
}
int nanosleep(const struct timespec* a, struct timespec* b) {
    note_call();
    static auto real = next<int (*)(const struct timespec*, struct timespec*)>("nanosleep");
    return real(a, b);
}
int clock_nanosleep(clockid_t c, int f, const struct timespec* a, struct timespec* b) {
    note_call();
    static auto real = next<int (*)(clockid_t, int, const struct timespec*, struct timespec*)>("clock_nanosleep");
    return real(c, f, a, b);
}
ssize_t write(int fd, const void* p, size_t n) {
    note_call();
    static auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
    return real(fd, p, n);
}
}  // extern "C"

namespace {

TEST(RealTime, TheProbeSeesAnAllocationItIsMeantToCatch) {
    // Self-check of the instrument: a callback-like scope that allocates.
    ws::rt::probe().store(&probe);
    const long before = g_violations.load();
    {
        ws::rt::CallbackScope scope;
        void* volatile p = std::malloc(16);
        std::free(p);
    }
    ws::rt::probe().store(nullptr);
    EXPECT_EQ(g_violations.load() - before, 2);
}

TEST(RealTime, CaptureCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    ws::test::TonePlayer tone;
    ASSERT_TRUE(tone.start(330.0));
    ASSERT_EQ(tn_engine_create(nullptr), ws_ok);
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_violations = 0;
    g_callbacks = 0;
    ws::rt::probe().store(&probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = g_callbacks.load();
    EXPECT_EQ(tn_engine_destroy(), ws_ok);
    EXPECT_GT(callbacks, 50);  // about 150 periods of 10 ms
    EXPECT_EQ(g_violations.load(), 0);
}

TEST(RealTime, ClickCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    ASSERT_EQ(mn_create(), ws_ok);
    MetronomeConfig c{};
    c.tempo_ubpm = 400000000;  // fast, with subdivisions and a second rhythm: many voices
    c.beats_per_bar = 4;
    c.subdivisions = 4;
    c.master_gain = c.accent_gain = c.beat_gain = c.subdivision_gain = c.poly_gain = 0.5;
    c.poly_pulses = 7;
    for (auto& level : c.accent_pattern) level = 4;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_violations = 0;
    g_callbacks = 0;
    ws::rt::probe().store(&probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = g_callbacks.load();
    EXPECT_EQ(mn_destroy(), ws_ok);
    EXPECT_GT(callbacks, 100);  // 6 ms periods
    EXPECT_EQ(g_violations.load(), 0);
}

// The duplex recorder's callback plays the backing and feeds the capture
// ring in the same period; the writer thread does the file work elsewhere.
TEST(RealTime, DuplexCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    const std::string take = (std::filesystem::temp_directory_path() / "woodshed-realtime-take.wav").string();
    ASSERT_EQ(sd_create(), ws_ok);
    ASSERT_EQ(sd_start(nullptr, take.c_str(), nullptr, 0), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_violations = 0;
    g_callbacks = 0;
    ws::rt::probe().store(&probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = g_callbacks.load();
    EXPECT_GE(sd_stop(), 0);
    EXPECT_EQ(sd_destroy(), ws_ok);
    std::filesystem::remove(take);
    EXPECT_GT(callbacks, 50);
    EXPECT_EQ(g_violations.load(), 0);
}

}  // namespace
