// The real-time rule for the render path, shown rather than promised: this
// binary replaces the global allocation functions (and, on glibc without a
// sanitizer, malloc and the mutex and sleep calls) with counters that are
// armed only on the thread and for the span of the render calls. Everything
// the engine's audio callback will do is exercised inside that span.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include "click_track.hpp"
#include "metronome/core.hpp"

#if defined(WS_INTERPOSE_LIBC)
#  include <dlfcn.h>
#  include <pthread.h>
#  include <time.h>
#endif

namespace {
thread_local bool t_armed = false;
std::atomic<long> g_calls{0};

void note_call() {
    if (t_armed) g_calls.fetch_add(1, std::memory_order_relaxed);
}

struct Armed {
    Armed() { t_armed = true; }
    ~Armed() { t_armed = false; }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};
}  // namespace

// Out of line, so the compiler cannot pair an inlined delete's free() with
// a new it knows as built in (and warn about a mismatch that is not there).
#if defined(__GNUC__)
#  define WS_OUT_OF_LINE __attribute__((noinline))
#else
#  define WS_OUT_OF_LINE
#endif

WS_OUT_OF_LINE void* operator new(std::size_t n) {
    note_call();
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
WS_OUT_OF_LINE void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    note_call();
    return std::malloc(n == 0 ? 1 : n);
}
void* operator new[](std::size_t n, const std::nothrow_t& t) noexcept { return operator new(n, t); }
WS_OUT_OF_LINE void operator delete(void* p) noexcept {
    if (p != nullptr) note_call();
    std::free(p);
}
void operator delete[](void* p) noexcept { operator delete(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }
void operator delete[](void* p, std::size_t) noexcept { operator delete(p); }

#if defined(WS_INTERPOSE_LIBC)
namespace {
template <class Fn>
Fn next_symbol(const char* name) {
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
void free(void* p) {
    if (p != nullptr) note_call();
    __libc_free(p);
}

int pthread_mutex_lock(pthread_mutex_t* m) {
    note_call();
    static auto real = next_symbol<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
    return real(m);
}
int pthread_mutex_trylock(pthread_mutex_t* m) {
    note_call();
    static auto real = next_symbol<int (*)(pthread_mutex_t*)>("pthread_mutex_trylock");
    return real(m);
}
int nanosleep(const struct timespec* a, struct timespec* b) {
    note_call();
    static auto real = next_symbol<int (*)(const struct timespec*, struct timespec*)>("nanosleep");
    return real(a, b);
}
}  // extern "C"
#endif

namespace {

using ws::metronome::MetronomeCore;

TEST(MetronomeRealTime, TheCounterSeesWhatItIsMeantToCatch) {
    const long before = g_calls.load();
    {
        Armed armed;
        auto* p = new std::vector<int>(8);
        delete p;
    }
    EXPECT_GE(g_calls.load() - before, 2);
}

TEST(MetronomeRealTime, RenderAndCommandsNeitherAllocateNorLock) {
    MetronomeCore core;  // allocates its tables here, before any rendering
    core.prepare(44100);
    MetronomeConfig busy = ws::test::base_config();
    busy.tempo_ubpm = 400000000;
    busy.beat_divisor = 8;
    busy.subdivisions = 12;
    busy.swing = 0.7;
    busy.sound = 4;            // long clicks: all 24 voices busy, stealing constantly
    busy.count_in_bars = 1;
    busy.poly_pulses = 32;
    busy.play_bars = 3;
    busy.mute_bars = 1;
    busy.drop_probability = 0.3;
    busy.ramp_mode = mn_ramp_stepwise;
    busy.ramp_target_ubpm = 300000000;
    busy.ramp_interval_bars = 1;
    MetronomeConfig linear = busy;
    linear.ramp_mode = mn_ramp_linear;
    linear.subdivisions = 5;
    std::vector<float> out(1024 * 8);
    int most_voices = 0;
    g_calls = 0;
    {
        Armed armed;
        core.start(busy);
        for (int block = 0; block < 3000; ++block) {
            switch (block) {
                case 500: core.configure(linear); break;
                case 900: core.pause(); break;
                case 950: core.resume(); break;
                case 1200: core.set_tempo(90000000); break;
                case 1300: core.set_master_gain(0.5); break;
                case 1500:
                    for (int i = 0; i < 40; ++i) core.set_tempo(100000000 + i);  // overflow
                    break;
                case 2000: core.stop(); break;
                case 2100: core.start(linear); break;
                default: break;
            }
            const uint32_t frames = 1 + static_cast<uint32_t>(block * 7919 % 1024);
            const uint32_t channels = 1 + static_cast<uint32_t>(block % 8);
            core.render(out.data(), frames, channels);
            MetronomeSnapshot s;
            (void)core.read_snapshot(&s);
            most_voices = std::max(most_voices, core.voices().active_count());
        }
    }
    EXPECT_EQ(g_calls.load(), 0);
    EXPECT_EQ(most_voices, ws::metronome::VoicePool::kVoices);  // the stealing path ran too
}

}  // namespace
