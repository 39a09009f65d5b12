// Cost of one detector window and of a minute of offline analysis, per NSDF
// kernel (0 scalar, 1 SSE2, 2 AVX2+FMA; kernels this CPU lacks are skipped),
// and of the check of the octave below on a window that needs it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "tuner/detector.hpp"
#include "woodshed/tuner.h"

namespace {

using ws::tuner::NsdfKernel;

constexpr double kRate = 48000.0;
constexpr double kTwoPi = 6.283185307179586;

// A plucked-string-like tone: fundamental plus falling harmonics, well above
// the silence threshold so every window runs the full search.
std::vector<float> harmonic_tone(size_t count, double f0) {
    std::vector<float> out(count);
    for (size_t i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / kRate;
        double v = 0.0;
        for (int h = 1; h <= 6; ++h) v += std::sin(kTwoPi * f0 * h * t) / h;
        out[i] = static_cast<float>(0.25 * v);
    }
    return out;
}

// Pins the kernel named by the benchmark's argument for the run, then hands
// detection back to the automatic choice.
class PinnedKernel {
public:
    explicit PinnedKernel(benchmark::State& state)
        : previous_(ws::tuner::nsdf_kernel()),
          ok_(ws::tuner::pin_nsdf_kernel(static_cast<NsdfKernel>(state.range(0)))) {
        if (!ok_) state.SkipWithError("kernel not supported here");
    }
    ~PinnedKernel() { ws::tuner::pin_nsdf_kernel(previous_); }
    PinnedKernel(const PinnedKernel&) = delete;
    PinnedKernel& operator=(const PinnedKernel&) = delete;
    bool ok() const { return ok_; }

private:
    NsdfKernel previous_;
    bool ok_;
};

void detect_window(benchmark::State& state, double lowest_hz, uint64_t n) {
    PinnedKernel pin(state);
    if (!pin.ok()) return;
    ws::tuner::PitchDetector detector;
    detector.configure(kRate, lowest_hz, 1200.0, n);
    const std::vector<float> window = harmonic_tone(static_cast<size_t>(n), 110.0);
    for (auto _ : state) {
        ws::tuner::PitchEstimate est = detector.detect(window.data(), window.size());
        benchmark::DoNotOptimize(est);
    }
    state.counters["max_lag"] = detector.max_lag();
}

// A low E string whose fundamental and third harmonic are weak (measured
// steel-string levels): every window pays for the check of the octave below.
std::vector<float> low_string(size_t count) {
    const double levels_db[8] = {-24, 0, -21, -11, -18, -27, -27, -25};
    std::vector<float> out(count);
    for (size_t i = 0; i < count; ++i) {
        const double t = static_cast<double>(i) / kRate;
        double v = 0.0;
        for (int h = 1; h <= 8; ++h) v += std::pow(10.0, levels_db[h - 1] / 20.0) * std::sin(kTwoPi * 82.41 * h * t + h);
        out[i] = static_cast<float>(0.3 * v);
    }
    return out;
}

void BM_DetectLowString2048(benchmark::State& state) {
    PinnedKernel pin(state);
    if (!pin.ok()) return;
    ws::tuner::PitchDetector detector;
    detector.configure(kRate, 55.0, 1200.0, 2048);
    const std::vector<float> window = low_string(2048);
    for (auto _ : state) {
        ws::tuner::PitchEstimate est = detector.detect(window.data(), window.size());
        benchmark::DoNotOptimize(est);
    }
    state.counters["hz"] = detector.detect(window.data(), window.size()).frequency;
}

// The check alone, over the whole periods of E2 (3, too few to measure a
// floor between harmonics) or of G3 (8, with the floor) in 2048 samples.
void BM_OddHarmonicShare2048(benchmark::State& state) {
    const std::vector<float> w = low_string(2048);
    const std::vector<double> x(w.begin(), w.end());
    const double period = kRate / static_cast<double>(state.range(0));
    for (auto _ : state) benchmark::DoNotOptimize(ws::tuner::odd_harmonics(x.data(), x.size(), period));
}

void BM_Detect2048(benchmark::State& state) { detect_window(state, 55.0, 2048); }
void BM_Detect8192Low20(benchmark::State& state) { detect_window(state, 20.0, 8192); }

void BM_OfflineMinute(benchmark::State& state) {
    constexpr double kSeconds = 60.0;
    PinnedKernel pin(state);
    if (!pin.ok()) return;
    static const std::vector<float> tone =
        harmonic_tone(static_cast<size_t>(kSeconds * kRate), 110.0);
    TunerReading reading{};
    for (auto _ : state) {
        const int32_t rc = tn_offline_process(nullptr, tone.data(), static_cast<int32_t>(tone.size()),
                                              1, kRate, &reading);
        if (rc != 1) state.SkipWithError("no reading");
        benchmark::DoNotOptimize(reading);
    }
    // Seconds of audio analysed per second of CPU time (a rate counter divides
    // by CPU time, which other load on the machine disturbs less than wall time).
    state.counters["x_realtime"] =
        benchmark::Counter(kSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(BM_Detect2048)->ArgName("kernel")->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DetectLowString2048)->ArgName("kernel")->DenseRange(1, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OddHarmonicShare2048)->ArgName("hz")->Arg(82)->Arg(196)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Detect8192Low20)->ArgName("kernel")->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OfflineMinute)
    ->ArgName("kernel")
    ->DenseRange(0, 2)
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
