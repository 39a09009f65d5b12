// The duplex recorder's costs, without a device:
//   - the callback per 10 ms period (441 frames: play the backing, push the
//     capture into the ring), while the ring has room and when it is full;
//   - the take writer's throughput in samples per second it converts and
//     writes, to a real file and to the null device (conversion alone);
//   - the reader: converting a 5-minute backing track;
//   - memory while recording: the ring, the scratch buffers and the decoded
//     5-minute backing (reported as counters, in bytes).
//   <build>/bin/bench_recorder --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "recorder/core.hpp"
#include "recorder/source_track.hpp"

namespace {

using namespace ws::recorder;

constexpr uint32_t kPeriod = 441;  // 10 ms at 44100 Hz

void put_u16(std::vector<uint8_t>& b, uint32_t v) {
    b.push_back(static_cast<uint8_t>(v & 0xFF));
    b.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
}
void put_u32(std::vector<uint8_t>& b, uint32_t v) {
    put_u16(b, v & 0xFFFF);
    put_u16(b, v >> 16);
}

// A stereo 16-bit WAV file of `seconds` of a two-tone signal at `rate`.
std::vector<uint8_t> backing_wav(uint32_t rate, double seconds) {
    const uint32_t frames = static_cast<uint32_t>(rate * seconds);
    std::vector<uint8_t> b;
    b.reserve(44 + size_t{frames} * 4);
    const uint32_t data = frames * 4;
    b.insert(b.end(), {'R', 'I', 'F', 'F'});
    put_u32(b, data + 36);
    b.insert(b.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    put_u32(b, 16);
    put_u16(b, 1);
    put_u16(b, 2);
    put_u32(b, rate);
    put_u32(b, rate * 4);
    put_u16(b, 4);
    put_u16(b, 16);
    b.insert(b.end(), {'d', 'a', 't', 'a'});
    put_u32(b, data);
    for (uint32_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / rate;
        put_u16(b, static_cast<uint16_t>(static_cast<int16_t>(12000 * std::sin(2 * M_PI * 220 * t))));
        put_u16(b, static_cast<uint16_t>(static_cast<int16_t>(12000 * std::sin(2 * M_PI * 330 * t))));
    }
    return b;
}

std::string temp_file(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

std::string write_backing(uint32_t rate, double seconds) {
    const std::string path = temp_file("woodshed-bench-backing.wav");
    const std::vector<uint8_t> b = backing_wav(rate, seconds);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    std::fwrite(b.data(), 1, b.size(), f);
    std::fclose(f);
    return path;
}

// The callback's work per period with a loaded track and the ring taking
// every period: 500 periods per iteration (the ring holds 594), then the
// ring is emptied outside the timing.
void BM_CallbackPeriod(benchmark::State& state) {
    RecorderCore core;
    const std::string path = write_backing(44100, 30.0);
    if (core.load_track(path.c_str()) != LoadResult::ok) state.SkipWithError("backing not loaded");
    std::filesystem::remove(path);
    std::vector<float> in(kPeriod), out(2 * kPeriod);
    for (uint32_t i = 0; i < kPeriod; ++i) in[i] = 0.3f * std::sin(0.05f * static_cast<float>(i));
    core.arm(0);
    core.set_recording(true);
    constexpr int kBatch = 500;
    for (auto _ : state) {
        for (int p = 0; p < kBatch; ++p) core.process(out.data(), in.data(), kPeriod);
        benchmark::DoNotOptimize(out.data());
        state.PauseTiming();
        core.arm(0);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["per_period"] = benchmark::Counter(
        static_cast<double>(state.iterations() * kBatch), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CallbackPeriod)->Unit(benchmark::kMicrosecond);

// A full ring: every period is dropped whole (the cheapest path, and the
// one that must stay cheap when the disk stalls).
void BM_CallbackPeriodRingFull(benchmark::State& state) {
    RecorderCore core;
    std::vector<float> in(kPeriod, 0.1f), out(2 * kPeriod);
    core.arm(0);
    core.set_recording(true);
    for (int p = 0; p < 600; ++p) core.process(out.data(), in.data(), kPeriod);
    for (auto _ : state) {
        core.process(out.data(), in.data(), kPeriod);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CallbackPeriodRingFull);

// The writer: a ring of 594 periods (261954 samples) converted and written
// in one pass, to a file (arg 0) or to the null device (arg 1), from a
// device at 44100 Hz (nothing to resample) or 48000 Hz (resampled to the
// take's rate). cpu_share: the share of one core the writer needs to keep
// up with a device at that rate.
void BM_WriterPass(benchmark::State& state) {
    const bool null_device = state.range(0) == 1;
    const auto rate = static_cast<uint32_t>(state.range(1));
    const std::string path = null_device ? std::string("/dev/null") : temp_file("woodshed-bench-take.wav");
    RecorderCore core;
    core.set_device_rate(rate);
    if (!core.take().create(path.c_str())) state.SkipWithError("take not created");
    std::vector<float> in(kPeriod), out(2 * kPeriod);
    for (uint32_t i = 0; i < kPeriod; ++i) in[i] = 0.5f * std::sin(0.01f * static_cast<float>(i));
    core.arm(0);
    core.set_recording(true);
    uint64_t samples = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (int p = 0; p < 594; ++p) core.process(out.data(), in.data(), kPeriod);
        state.ResumeTiming();
        core.writer().pass();
        samples += 594 * kPeriod;
        if (!null_device && core.take().samples_written() > 50'000'000) {
            state.PauseTiming();  // keep the file small: start a new take
            core.take().create(path.c_str());
            state.ResumeTiming();
        }
    }
    core.take().finish();
    if (!null_device) std::filesystem::remove(path);
    state.SetItemsProcessed(static_cast<int64_t>(samples));  // samples per second
    state.SetBytesProcessed(static_cast<int64_t>(samples * 2));
    // Seconds of writer time per second of audio at the device rate.
    state.counters["cpu_share"] = benchmark::Counter(static_cast<double>(samples) / rate,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_WriterPass)->ArgNames({"null_device", "rate"})->Args({0, 44100})->Args({1, 44100})
    ->Args({1, 48000})->Unit(benchmark::kMillisecond);

#if defined(__linux__)
// Resident set size in bytes, from /proc.
double resident_bytes() {
    long pages = 0, resident = 0;
    if (std::FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * 4096.0;
}
#else
double resident_bytes() { return 0.0; }
#endif

// Loading a 5-minute 48000 Hz stereo backing (converted to 44100 Hz), and
// what a recording then holds in memory.
void BM_Backing5Minutes(benchmark::State& state) {
    const std::string path = write_backing(48000, 300.0);
    double resident_growth = 0.0;
    size_t backing_bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const double before = resident_bytes();
        state.ResumeTiming();
        SourceTrack track;
        if (load_source_track(path.c_str(), 44100, track) != LoadResult::ok) state.SkipWithError("backing not loaded");
        benchmark::DoNotOptimize(track.samples.data());
        state.PauseTiming();
        resident_growth = resident_bytes() - before;
        backing_bytes = track.samples.capacity() * sizeof(float);
        state.ResumeTiming();
    }
    std::filesystem::remove(path);
    const double ring = kRingSamples * sizeof(float);
    const double scratch = kScratchSamples * (sizeof(float) + sizeof(int16_t));
    state.counters["ring_B"] = ring;
    state.counters["scratch_B"] = scratch;
    state.counters["backing_B"] = static_cast<double>(backing_bytes);
    state.counters["recording_B"] = ring + scratch + static_cast<double>(backing_bytes);
    state.counters["raw_file_B"] = 300.0 * 48000 * 4 + 44;  // held only while loading
    state.counters["rss_growth_B"] = resident_growth;
}
BENCHMARK(BM_Backing5Minutes)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
