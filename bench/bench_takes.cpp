// The take tools' costs: the 262144-point transform beside FFTW's
// single-threaded one of the same size (a yardstick only; the library never
// uses it), ta_analyze / ta_clean on a three-minute 44100 Hz take, with
// the peak memory each call adds, and leak removal on one-minute takes
// built like real ones (take_scenes.hpp): the leak left and the musician's
// gain for each condition, found and cleaned through the exports.
//   <build>/bin/bench_takes --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#if defined(WOODSHED_HAVE_FFTW)
#  include <fftw3.h>
#endif

#include "frame/wav_header.hpp"
#include "take_scenes.hpp"
#include "takes/fft.hpp"
#include "woodshed/takes.h"

namespace {

constexpr size_t kFftSize = 262144;
constexpr uint32_t kRate = 44100;
constexpr size_t kTakeFrames = 180 * kRate;
constexpr double kTwoPi = 6.283185307179586;

std::vector<std::complex<float>> noise_input(size_t n) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    std::vector<std::complex<float>> x(n);
    for (auto& v : x) v = {d(rng), d(rng)};
    return x;
}

// Each iteration transforms the same input; restoring it is not timed.
void fft_table(benchmark::State& state) {
    const bool vector = state.range(0) != 0;
    if (vector && !ws::takes::fft_detail::vector_kernel_available()) {
        state.SkipWithError("no vector kernel on this CPU");
        return;
    }
    ws::takes::fft_detail::use_vector_kernel(vector);
    const auto input = noise_input(kFftSize);
    const ws::takes::FftTable table(kFftSize);
    auto a = input;
    for (auto _ : state) {
        state.PauseTiming();
        a = input;
        state.ResumeTiming();
        table.transform(a.data(), false);
        benchmark::DoNotOptimize(a.data());
    }
    ws::takes::fft_detail::use_vector_kernel(ws::takes::fft_detail::vector_kernel_available());
}
BENCHMARK(fft_table)->ArgName("vector")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

// The table-free transform: twiddles regenerated per call.
void fft_plain(benchmark::State& state) {
    const auto input = noise_input(kFftSize);
    auto a = input;
    for (auto _ : state) {
        state.PauseTiming();
        a = input;
        state.ResumeTiming();
        ws::takes::fft_in_place(a.data(), kFftSize, false);
        benchmark::DoNotOptimize(a.data());
    }
}
BENCHMARK(fft_plain)->Unit(benchmark::kMillisecond);

#if defined(WOODSHED_HAVE_FFTW)
void fftw_single_thread(benchmark::State& state) {
    const auto input = noise_input(kFftSize);
    auto* buffer = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * kFftSize));
    const fftwf_plan plan = fftwf_plan_dft_1d(static_cast<int>(kFftSize), buffer, buffer, FFTW_FORWARD,
                                              FFTW_MEASURE);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(buffer, input.data(), sizeof(fftwf_complex) * kFftSize);
        state.ResumeTiming();
        fftwf_execute(plan);
        benchmark::DoNotOptimize(buffer);
    }
    fftwf_destroy_plan(plan);
    fftwf_free(buffer);
}
BENCHMARK(fftw_single_thread)->Unit(benchmark::kMillisecond);
#endif

// ---- three-minute take ----------------------------------------------------

void write_wav(const std::string& path, const std::vector<float>& x) {
    const auto header = ws::frame::mono16_wav_header(kRate, static_cast<uint32_t>(x.size() * 2));
    std::vector<uint8_t> bytes(header.begin(), header.end());
    bytes.reserve(header.size() + 2 * x.size());
    for (float v : x) {
        const auto s = static_cast<int16_t>(std::lrint(std::fmax(-32768.0f, std::fmin(32767.0f, v * 32767.0f))));
        bytes.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) & 0xFF));
        bytes.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) >> 8));
    }
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

// Chords over low-passed noise for the backing track; the take hears it
// 1234 frames late through two reflections, under a quieter musician.
struct TakeFiles {
    std::filesystem::path dir;
    std::string backing, take, pristine;
    TakeFiles() {
        dir = std::filesystem::temp_directory_path() / ("woodshed-bench-takes-" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(dir);
        backing = (dir / "backing.wav").string();
        take = (dir / "take.wav").string();
        pristine = (dir / "take-original.wav").string();
        std::mt19937 rng(7);
        std::normal_distribution<double> gauss(0.0, 0.25);
        std::vector<float> ref(kTakeFrames), take_samples(kTakeFrames);
        double lp = 0.0;
        for (size_t i = 0; i < kTakeFrames; ++i) {
            const double t = static_cast<double>(i) / kRate;
            const double f = 110.0 * std::pow(2.0, static_cast<double>((i / 22050) % 12) / 12.0);
            lp += 0.4 * (gauss(rng) - lp);
            ref[i] = static_cast<float>(0.15 * std::sin(kTwoPi * f * t) + 0.1 * std::sin(kTwoPi * 1.5 * f * t) + lp);
        }
        for (size_t i = 0; i < kTakeFrames; ++i) {
            auto at = [&](size_t d) { return i >= d ? ref[i - d] : 0.0f; };
            const double musician = 0.03 * std::sin(kTwoPi * 330.0 * static_cast<double>(i) / kRate);
            take_samples[i] = static_cast<float>(0.4 * at(1234) + 0.1 * at(1300) - 0.05 * at(1500) + musician);
        }
        write_wav(backing, ref);
        write_wav(pristine, take_samples);
    }
    ~TakeFiles() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    void restore_take() const {
        std::filesystem::copy_file(pristine, take, std::filesystem::copy_options::overwrite_existing);
    }
};

const TakeFiles& files() {
    static const TakeFiles f;
    return f;
}

// The memory a call adds at its peak: the high-water mark is reset just
// before it (Linux: clear_refs 5) and read just after.
struct PeakMemory {
    bool available = false;
    long baseline_kb = 0;
    static long status_kb(const char* key) {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.rfind(key, 0) == 0) return std::strtol(line.c_str() + std::strlen(key), nullptr, 10);
        }
        return -1;
    }
    void start() {
        std::ofstream clear("/proc/self/clear_refs");
        clear << "5";
        clear.flush();
        available = static_cast<bool>(clear);
        baseline_kb = status_kb("VmRSS:");
    }
    double added_mb() const { return available ? static_cast<double>(status_kb("VmHWM:") - baseline_kb) / 1024.0 : -1; }
};

constexpr double kDecodedMb = 2.0 * kTakeFrames * sizeof(float) / (1024.0 * 1024.0);

void analyze_three_minutes(benchmark::State& state) {
    const TakeFiles& f = files();
    f.restore_take();
    double peak = 0.0;
    TakeAnalysis a{};
    for (auto _ : state) {
        PeakMemory m;
        m.start();
        if (ta_analyze(f.backing.c_str(), f.take.c_str(), 0, 0, 500, &a) != ws_ok || a.delay_frames != 1234) {
            std::fprintf(stderr, "delay %lld score %g\n", static_cast<long long>(a.delay_frames), a.score);
            state.SkipWithError("analysis failed");
            return;
        }
        peak = std::max(peak, m.added_mb());
    }
    state.counters["peak_MB"] = peak;
    state.counters["decoded_MB"] = kDecodedMb;
    state.counters["score"] = a.score;
}
BENCHMARK(analyze_three_minutes)->Unit(benchmark::kSecond)->Iterations(3);

void clean_three_minutes(benchmark::State& state) {
    const TakeFiles& f = files();
    double peak = 0.0;
    TakeCleaning c{};
    for (auto _ : state) {
        state.PauseTiming();
        f.restore_take();
        PeakMemory m;
        m.start();
        state.ResumeTiming();
        if (ta_clean(f.backing.c_str(), f.take.c_str(), 0, 1234, &c) != ws_ok) {
            state.SkipWithError("cleaning failed");
            return;
        }
        peak = std::max(peak, m.added_mb());
    }
    state.counters["peak_MB"] = peak;
    state.counters["decoded_MB"] = kDecodedMb;
    state.counters["reduction_dB"] = c.reduction_db;
}
BENCHMARK(clean_three_minutes)->Unit(benchmark::kSecond)->Iterations(2);

// ---- one-minute takes built like real ones ----------------------------------

struct Condition {
    const char* name;
    ws::bench::SceneSetup setup;
};

std::vector<Condition> conditions() {
    using ws::bench::SceneSetup;
    std::vector<Condition> c;
    SceneSetup living;  // RT60 0.5 s, 0.7 s long, player 10 dB over the leak
    c.push_back({"living_room", living});
    SceneSetup alone = living;
    alone.musician_db = -300.0;
    c.push_back({"living_room_no_player", alone});
    SceneSetup usual = living;
    usual.rt60 = 0.25;
    usual.room_seconds = 0.35;
    for (double ppm : {0.0, 50.0, 100.0}) {
        SceneSetup d = usual;
        d.drift_ppm = ppm;
        c.push_back({ppm == 0.0 ? "usual_room_0ppm" : ppm == 50.0 ? "usual_room_50ppm" : "usual_room_100ppm", d});
    }
    SceneSetup jump = usual;
    jump.jumps = {{0.4, 1504}};
    c.push_back({"usual_room_jump_1504", jump});
    SceneSetup weak = usual;
    weak.leak_rms = 0.25 * std::pow(10.0, -33.0 / 20.0);  // the player at -12 dBFS
    weak.musician_db = 33.0;
    c.push_back({"leak_33dB_under", weak});
    return c;
}

// Figures: reduction_dB = 10 log10(E(true leak) / E(output - musician)) over
// the whole take, gain_dB = the musician's least-squares gain in the output,
// cpu_s_per_min = ta_clean's CPU time per minute of take.
void clean_condition(benchmark::State& state) {
    const Condition cond = conditions()[static_cast<size_t>(state.range(0))];
    state.SetLabel(cond.name);
    const auto scene = ws::bench::make_scene(cond.setup);
    const auto dir = std::filesystem::temp_directory_path() / ("woodshed-bench-scene-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(dir);
    const std::string backing = (dir / "backing.wav").string(), take = (dir / "take.wav").string();
    const auto rate = static_cast<uint32_t>(cond.setup.rate);
    ws::bench::write_wav16(backing, scene.backing, rate);
    TakeAnalysis a{};
    TakeCleaning c{};
    double peak = 0.0;
    ws::bench::Outcome o{};
    for (auto _ : state) {
        state.PauseTiming();
        ws::bench::write_wav16(take, scene.take, rate);
        if (ta_analyze(backing.c_str(), take.c_str(), 0, 0, 500, &a) != ws_ok) {
            state.SkipWithError("analysis failed");
            break;
        }
        PeakMemory m;
        m.start();
        state.ResumeTiming();
        const int32_t rc = ta_clean(backing.c_str(), take.c_str(), 0, a.delay_frames, &c);
        state.PauseTiming();
        peak = std::max(peak, m.added_mb());
        if (rc != ws_ok) {
            state.SkipWithError("cleaning failed");
            break;
        }
        o = ws::bench::judge(scene, ws::bench::read_wav16(take));
        state.ResumeTiming();
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    state.counters["reduction_dB"] = o.reduction_db;
    state.counters["gain_dB"] = o.gain_db;
    state.counters["reported_dB"] = c.reduction_db;
    state.counters["delay"] = static_cast<double>(a.delay_frames);
    state.counters["cpu_s_per_min"] = benchmark::Counter(cond.setup.seconds / 60.0, benchmark::Counter::kIsIterationInvariantRate |
                                                                                       benchmark::Counter::kInvert);
    state.counters["mem_ratio"] = peak / (2.0 * static_cast<double>(scene.take.size()) * sizeof(float) / (1024.0 * 1024.0));
}
BENCHMARK(clean_condition)->DenseRange(0, 6)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
