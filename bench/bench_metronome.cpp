// Cost of the metronome's audio path: one 6 ms block (288 frames at 48 kHz,
// stereo) with all 24 voices sounding, the mixer alone, a plain 4/4 click
// for comparison, and mn_render_offline for 10 minutes of audio.
//   <build>/bin/bench_metronome --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include "metronome/config.hpp"
#include "metronome/core.hpp"
#include "metronome/voices.hpp"
#include "woodshed/metronome.h"

namespace {

using ws::metronome::MetronomeCore;

constexpr uint32_t kBlock = 288;  // 6 ms at 48 kHz, the live device's period
constexpr uint32_t kChannels = 2;

MetronomeConfig plain_config() {
    MetronomeConfig c = ws::metronome::plain_config();
    c.master_gain = 0.8;
    return c;
}

// 400 BPM, beat / 8, 12 pulses a beat (a pulse every 75 frames) of the
// 85 ms sound, plus 32 second-rhythm parts per bar: every voice is always
// busy, and a voice is stolen every few dozen frames.
MetronomeConfig busy_config() {
    MetronomeConfig c = plain_config();
    c.tempo_ubpm = 400000000;
    c.beat_divisor = 8;
    c.subdivisions = 12;
    c.swing = 0.6;
    c.sound = 4;
    c.subdivision_gain = 1.0;
    c.poly_pulses = 32;
    c.poly_sound = 4;
    c.poly_gain = 1.0;
    return c;
}

void render_block(benchmark::State& state, const MetronomeConfig& config) {
    MetronomeCore core;
    core.prepare(48000);
    core.start(config);
    std::vector<float> out(kBlock * kChannels);
    for (int i = 0; i < 100; ++i) core.render(out.data(), kBlock, kChannels);  // fill the voices
    int min_voices = ws::metronome::VoicePool::kVoices;
    for (auto _ : state) {
        core.render(out.data(), kBlock, kChannels);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
        min_voices = std::min(min_voices, core.voices().active_count());
    }
    state.counters["min_voices"] = min_voices;
    state.counters["blocks/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                    benchmark::Counter::kIsRate);
    state.SetItemsProcessed(state.iterations() * kBlock);
}

void BM_RenderBlock_24Voices(benchmark::State& state) { render_block(state, busy_config()); }
void BM_RenderBlock_Plain44(benchmark::State& state) { render_block(state, plain_config()); }

// The mixer alone, 24 long voices that never run out during the run.
void BM_MixBlock_24Voices(benchmark::State& state) {
    std::vector<float> table(1 << 22, 0.25f);
    ws::metronome::VoicePool pool;
    for (int i = 0; i < ws::metronome::VoicePool::kVoices; ++i) {
        pool.trigger({table.data(), static_cast<int32_t>(table.size())}, 0.5, i);
    }
    std::vector<float> out(kBlock * kChannels);
    int64_t blocks = 0;
    for (auto _ : state) {
        std::fill(out.begin(), out.end(), 0.0f);
        pool.mix(out.data(), kBlock, kChannels, 0.8f);
        benchmark::DoNotOptimize(out.data());
        if (++blocks == 14000) {  // about 4 M frames: start the voices over
            state.PauseTiming();
            pool.silence_all();
            for (int i = 0; i < ws::metronome::VoicePool::kVoices; ++i) {
                pool.trigger({table.data(), static_cast<int32_t>(table.size())}, 0.5, i);
            }
            blocks = 0;
            state.ResumeTiming();
        }
    }
    state.counters["voices"] = pool.active_count();
    state.SetItemsProcessed(state.iterations() * kBlock);
}

// Ten minutes at 48 kHz stereo through the export (its buffer is the host's,
// allocated once outside the timing).
void render_offline(benchmark::State& state, const MetronomeConfig& config) {
    const int64_t frames = 10 * 60 * 48000;
    std::vector<float> out(static_cast<size_t>(frames) * kChannels);
    for (auto _ : state) {
        const int64_t n = mn_render_offline(&config, 48000.0, frames, kChannels, out.data());
        if (n != frames) state.SkipWithError("mn_render_offline failed");
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.counters["x_realtime"] = benchmark::Counter(
        600.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_RenderOffline_10min_Plain44(benchmark::State& state) { render_offline(state, plain_config()); }
void BM_RenderOffline_10min_24Voices(benchmark::State& state) { render_offline(state, busy_config()); }

}  // namespace

BENCHMARK(BM_RenderBlock_24Voices)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RenderBlock_Plain44)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MixBlock_24Voices)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RenderOffline_10min_Plain44)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_RenderOffline_10min_24Voices)->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_MAIN();
