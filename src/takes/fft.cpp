// Butterfly passes of the transform in fft.hpp: a portable one and, on x86,
// an AVX one chosen at run time. Both round exactly alike: the AVX kernel
// does the same multiplies and adds, lane by lane, with no fused
// multiply-add, so the two give bit-identical results.
#include "takes/fft.hpp"

#include <atomic>

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__) && !defined(_MSC_VER)
#  include <immintrin.h>
#  define WS_FFT_AVX 1
#else
#  define WS_FFT_AVX 0
#endif

namespace ws::takes::fft_detail {

namespace {

template <class T>
inline void butterfly(T* lo, T* hi, double wr, double wi) {
    const double xr = hi[0], xi = hi[1];
    const double vr = xr * wr - xi * wi;
    const double vi = xr * wi + xi * wr;
    const double ur = lo[0], ui = lo[1];
    lo[0] = static_cast<T>(ur + vr);
    lo[1] = static_cast<T>(ui + vi);
    hi[0] = static_cast<T>(ur - vr);
    hi[1] = static_cast<T>(ui - vi);
}

template <class T>
void pass_scalar(T* a, size_t size, size_t half, size_t k0, size_t count, const double* tw) {
    for (size_t b = 0; b < size; b += 2 * half) {
        T* lo = a + 2 * (b + k0);
        T* hi = lo + 2 * half;
        for (size_t k = 0; k < count; ++k) butterfly(lo + 2 * k, hi + 2 * k, tw[2 * k], tw[2 * k + 1]);
    }
}

#if WS_FFT_AVX

// v = x * w for two complex values per register, laid out (re, im, re, im):
// lane by lane xr*wr - xi*wi and xi*wr + xr*wi, the scalar products exactly.
__attribute__((target("avx"))) inline __m256d complex_mul(__m256d x, __m256d w) {
    const __m256d wr = _mm256_movedup_pd(w);
    const __m256d wi = _mm256_permute_pd(w, 0xF);
    const __m256d xs = _mm256_permute_pd(x, 0x5);
    return _mm256_addsub_pd(_mm256_mul_pd(x, wr), _mm256_mul_pd(xs, wi));
}

__attribute__((target("avx"))) inline __m128d complex_mul(__m128d x, __m128d w) {
    const __m128d wr = _mm_movedup_pd(w);
    const __m128d wi = _mm_unpackhi_pd(w, w);
    const __m128d xs = _mm_shuffle_pd(x, x, 1);
    return _mm_addsub_pd(_mm_mul_pd(x, wr), _mm_mul_pd(xs, wi));
}

// Float arrays: two butterflies per step when a block has at least two
// twiddles (count is then even), one per step in the first stage.
__attribute__((target("avx"))) void pass_avx(float* a, size_t size, size_t half, size_t k0,
                                             size_t count, const double* tw) {
    if (half == 1) {
        const __m128d w = _mm_loadu_pd(tw);
        for (size_t b = 0; b < size; b += 2) {
            float* p = a + 2 * b;
            const __m256d x = _mm256_cvtps_pd(_mm_loadu_ps(p));  // lo, hi
            const __m128d u = _mm256_castpd256_pd128(x);
            const __m128d v = complex_mul(_mm256_extractf128_pd(x, 1), w);
            const __m256d out = _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_add_pd(u, v)),
                                                     _mm_sub_pd(u, v), 1);
            _mm_storeu_ps(p, _mm256_cvtpd_ps(out));
        }
        return;
    }
    for (size_t b = 0; b < size; b += 2 * half) {
        float* lo = a + 2 * (b + k0);
        float* hi = lo + 2 * half;
        for (size_t k = 0; k < count; k += 2) {
            const __m256d v = complex_mul(_mm256_cvtps_pd(_mm_loadu_ps(hi + 2 * k)),
                                          _mm256_loadu_pd(tw + 2 * k));
            const __m256d u = _mm256_cvtps_pd(_mm_loadu_ps(lo + 2 * k));
            _mm_storeu_ps(lo + 2 * k, _mm256_cvtpd_ps(_mm256_add_pd(u, v)));
            _mm_storeu_ps(hi + 2 * k, _mm256_cvtpd_ps(_mm256_sub_pd(u, v)));
        }
    }
}

__attribute__((target("avx"))) void pass_avx(double* a, size_t size, size_t half, size_t k0,
                                             size_t count, const double* tw) {
    if (half == 1) {
        const __m128d w = _mm_loadu_pd(tw);
        for (size_t b = 0; b < size; b += 2) {
            double* p = a + 2 * b;
            const __m128d u = _mm_loadu_pd(p);
            const __m128d v = complex_mul(_mm_loadu_pd(p + 2), w);
            _mm_storeu_pd(p, _mm_add_pd(u, v));
            _mm_storeu_pd(p + 2, _mm_sub_pd(u, v));
        }
        return;
    }
    for (size_t b = 0; b < size; b += 2 * half) {
        double* lo = a + 2 * (b + k0);
        double* hi = lo + 2 * half;
        for (size_t k = 0; k < count; k += 2) {
            const __m256d v = complex_mul(_mm256_loadu_pd(hi + 2 * k), _mm256_loadu_pd(tw + 2 * k));
            const __m256d u = _mm256_loadu_pd(lo + 2 * k);
            _mm256_storeu_pd(lo + 2 * k, _mm256_add_pd(u, v));
            _mm256_storeu_pd(hi + 2 * k, _mm256_sub_pd(u, v));
        }
    }
}

bool detect_avx() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx");
}

#endif

std::atomic<bool>& use_vector() {
#if WS_FFT_AVX
    static std::atomic<bool> on{detect_avx()};
#else
    static std::atomic<bool> on{false};
#endif
    return on;
}

template <class T>
void dispatch(T* a, size_t size, size_t half, size_t k0, size_t count, const double* tw) {
#if WS_FFT_AVX
    if (use_vector().load(std::memory_order_relaxed)) {
        pass_avx(a, size, half, k0, count, tw);
        return;
    }
#endif
    pass_scalar(a, size, half, k0, count, tw);
}

}  // namespace

void pass(std::complex<float>* a, size_t size, size_t half, size_t k0, size_t count,
          const double* tw) noexcept {
    dispatch(reinterpret_cast<float*>(a), size, half, k0, count, tw);
}

void pass(std::complex<double>* a, size_t size, size_t half, size_t k0, size_t count,
          const double* tw) noexcept {
    dispatch(reinterpret_cast<double*>(a), size, half, k0, count, tw);
}

bool vector_kernel_available() noexcept {
#if WS_FFT_AVX
    static const bool available = detect_avx();
    return available;
#else
    return false;
#endif
}

bool use_vector_kernel(bool on) noexcept {
    if (on && !vector_kernel_available()) return false;
    use_vector().store(on, std::memory_order_relaxed);
    return true;
}

}  // namespace ws::takes::fft_detail
