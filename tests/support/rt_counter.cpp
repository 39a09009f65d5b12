#include "rt_counter.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

#if defined(WS_INTERPOSE_LIBC)
#  include <dlfcn.h>
#  include <pthread.h>
#  include <sched.h>
#  include <semaphore.h>
#  include <stdarg.h>
#  include <stdio.h>
#  include <time.h>
#  include <unistd.h>
#endif

namespace ws::test::rt {
namespace {
thread_local bool t_armed = false;
std::atomic<long> g_calls{0};
std::atomic<long> g_callbacks{0};
}  // namespace

void note_call() {
    if (t_armed) g_calls.fetch_add(1, std::memory_order_relaxed);
}
void arm(bool on) { t_armed = on; }
long counted() { return g_calls.load(); }
long callbacks() { return g_callbacks.load(); }
void reset() {
    g_calls = 0;
    g_callbacks = 0;
}
void probe(bool entering) {
    t_armed = entering;
    if (entering) g_callbacks.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace ws::test::rt

using ws::test::rt::note_call;

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

// The next definition of `name`, looked up once without a function-local
// static: the guard of such a static is itself interposed below.
#define WS_NEXT(type, name)                                                              \
    ([] {                                                                                \
        static_assert(sizeof(type) == sizeof(void*));                                    \
        static std::atomic<void*> slot_##name{nullptr};                                  \
        void* f = slot_##name.load(std::memory_order_acquire);                           \
        if (f == nullptr) {                                                              \
            f = dlsym(RTLD_NEXT, #name);                                                 \
            slot_##name.store(f, std::memory_order_release);                             \
        }                                                                                \
        return reinterpret_cast<type>(f);                                                \
    }())
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
int sem_wait(sem_t* s) {
    note_call();
    static auto real = next_symbol<int (*)(sem_t*)>("sem_wait");
    return real(s);
}
int nanosleep(const struct timespec* a, struct timespec* b) {
    note_call();
    static auto real = next_symbol<int (*)(const struct timespec*, struct timespec*)>("nanosleep");
    return real(a, b);
}
ssize_t write(int fd, const void* p, size_t n) {
    note_call();
    static auto real = next_symbol<ssize_t (*)(int, const void*, size_t)>("write");
    return real(fd, p, n);
}
int clock_nanosleep(clockid_t c, int f, const struct timespec* a, struct timespec* b) {
    note_call();
    static auto real =
        next_symbol<int (*)(clockid_t, int, const struct timespec*, struct timespec*)>("clock_nanosleep");
    return real(c, f, a, b);
}

// Waits and wake-ups that end in the kernel: condition variables, rwlocks
// (std::shared_mutex), semaphores, yields and short sleeps, raw futex calls
// (std::binary_semaphore and atomic waits go straight to syscall), buffered
// output, and the first run of a function-local static's initialiser.
#define WS_COUNTED(ret, name, params, args)                       \
    ret name params {                                             \
        note_call();                                              \
        return WS_NEXT(decltype(&name), name) args;               \
    }
WS_COUNTED(int, pthread_cond_wait, (pthread_cond_t* c, pthread_mutex_t* m), (c, m))
WS_COUNTED(int, pthread_cond_timedwait, (pthread_cond_t* c, pthread_mutex_t* m, const struct timespec* t), (c, m, t))
WS_COUNTED(int, pthread_cond_signal, (pthread_cond_t* c), (c))
WS_COUNTED(int, pthread_cond_broadcast, (pthread_cond_t* c), (c))
WS_COUNTED(int, pthread_rwlock_rdlock, (pthread_rwlock_t* l), (l))
WS_COUNTED(int, pthread_rwlock_wrlock, (pthread_rwlock_t* l), (l))
WS_COUNTED(int, sem_timedwait, (sem_t* s, const struct timespec* t), (s, t))
WS_COUNTED(int, sem_post, (sem_t* s), (s))
WS_COUNTED(int, sched_yield, (), ())
WS_COUNTED(int, usleep, (useconds_t us), (us))
WS_COUNTED(size_t, fwrite, (const void* p, size_t size, size_t n, FILE* f), (p, size, n, f))
WS_COUNTED(int, fputs, (const char* text, FILE* f), (text, f))
WS_COUNTED(int, fputc, (int c, FILE* f), (c, f))
WS_COUNTED(int, puts, (const char* text), (text))
WS_COUNTED(int, fflush, (FILE* f), (f))
WS_COUNTED(int, vfprintf, (FILE* f, const char* format, va_list ap), (f, format, ap))
WS_COUNTED(int, __cxa_guard_acquire, (long long* guard), (guard))

long syscall(long number, ...) {
    note_call();
    va_list ap;
    va_start(ap, number);
    long a[6];
    for (long& x : a) x = va_arg(ap, long);
    va_end(ap);
    return WS_NEXT(long (*)(long, ...), syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
}  // extern "C"
#endif
