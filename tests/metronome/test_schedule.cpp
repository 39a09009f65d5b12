// Beat scheduling checked against arithmetic: each test lists the clicks
// (frame, sound, accent, gain) worked out by hand, and the track they make
// is compared with the rendered audio sample by sample, so a misplaced,
// missing, extra or wrongly weighted click fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "click_track.hpp"
#include "metronome/core.hpp"

namespace {

using ws::metronome::MetronomeCore;
using ws::test::base_config;
using ws::test::snapshot;

struct Click {
    int64_t frame;
    int32_t sound;
    bool accent;
    double gain;
};

// Pulse k of a steady tempo (whole millibeats) in exact integers: k pulses of
// rate x 60 x multiplier / (BPM x divisor x subdivisions) frames, or with
// swing s (in thousandths) pair p from 2000 p and its second pulse 2 s later.
int64_t pulse_frame(int64_t k, int64_t rate, int64_t ubpm, int64_t subdivisions, int64_t divisor = 1,
                    int64_t multiplier = 1, int64_t swing = 500) {
    const int64_t units = swing > 500 && subdivisions % 2 == 0 ? 2000 * (k / 2) + (k % 2) * 2 * swing : 1000 * k;
    return units * rate * 60000 * multiplier / (1000 * (ubpm / 1000) * divisor * subdivisions);
}

// Renders `frames` mono frames in blocks of 1..max_block drawn from `seed`
// (every one max_block for seed 0), calling `after` with the frames done
// after each block, until a fatal failure.
std::vector<float> render_mono(MetronomeCore& core, size_t frames, uint32_t max_block, uint32_t seed = 0,
                               const std::function<void(int64_t)>& after = {}) {
    std::vector<float> out(frames);
    std::minstd_rand sizes(seed);
    for (size_t done = 0; done < frames && !testing::Test::HasFatalFailure();) {
        const size_t n = std::min<size_t>(seed != 0 ? 1 + sizes() % max_block : max_block, frames - done);
        core.render(out.data() + done, static_cast<uint32_t>(n), 1);
        done += n;
        if (after) after(static_cast<int64_t>(done));
    }
    return out;
}

// Empty when the core's output is the track the clicks make through its bank
// at master gain 1 (and the mixer's headroom of 0.85); else the first frame
// that differs.
std::string track_difference(const MetronomeCore& core, const std::vector<float>& out,
                             const std::vector<Click>& clicks) {
    std::vector<float> expect(out.size(), 0.0f);
    for (const Click& c : clicks) {
        const ws::metronome::ClickTable t = core.sound_bank().table(c.sound, c.accent);
        for (int64_t i = 0; i < t.length && c.frame + i < static_cast<int64_t>(out.size()); ++i) {
            expect[static_cast<size_t>(c.frame + i)] += t.samples[i] * (static_cast<float>(c.gain) * 0.85f);
        }
    }
    for (size_t i = 0; i < out.size(); ++i) {
        if (!(std::fabs(out[i] - std::clamp(expect[i], -1.0f, 1.0f)) <= 1e-6f)) {
            return "frame " + std::to_string(i) + ": " + std::to_string(out[i]) + " vs " + std::to_string(expect[i]);
        }
    }
    return {};
}

// ------------------------------------------------------------ pulse positions

struct Grid {
    int64_t rate, ubpm, subdivisions, divisor, multiplier;
    double swing = 0.5;
    // Voices are taken at the start of a block, so the clicks of one block
    // must fit in the 24 voices for the track to be exact.
    uint32_t max_block = 700;
};

const Grid kGrids[] = {
    {48000, 120000000, 1, 1, 1},            // 24000 frames exactly
    {44100, 110000000, 1, 1, 1},            // 24054.54...: lengths alternate, never drift
    {96000, 137500000, 5, 2, 1},            // 4189.09...
    {8000, 400000000, 12, 8, 1, 0.5, 96},   // 12.5: the shortest pulse in range
    {22050, 33333000, 2, 1, 2},             // slow, doubled beat
    {192000, 61234567, 7, 3, 2},            // odd tempo: whole millibeats (61234) count
    {48000, 120000000, 2, 1, 1, 0.66},      // swing splits each pair but keeps its length
    {44100, 110000000, 4, 1, 1, 0.6},
    {48000, 90000000, 6, 1, 1, 0.75},
    {96000, 133000000, 2, 1, 1, 0.5004},    // rounds to 500: no swing
    {48000, 120000000, 3, 1, 1, 0.66},      // odd subdivisions: swing ignored
};

TEST(BeatScheduling, PulseKLandsOnItsExactFrameWhateverTheBlockSizes) {
    for (const Grid& g : kGrids) {
        for (uint32_t seed : {0u, 1234u}) {
            SCOPED_TRACE(testing::Message() << g.rate << " Hz, " << g.ubpm << " ubpm, " << g.subdivisions
                                            << " subdivisions, swing " << g.swing << ", seed " << seed);
            MetronomeCore core;
            core.prepare(static_cast<double>(g.rate));
            MetronomeConfig c = base_config();
            c.tempo_ubpm = g.ubpm;
            c.beats_per_bar = 3;
            c.subdivisions = static_cast<int32_t>(g.subdivisions);
            c.beat_divisor = static_cast<int32_t>(g.divisor);
            c.beat_multiplier = static_cast<int32_t>(g.multiplier);
            c.swing = g.swing;
            core.start(c);
            const int64_t swing = std::llround(g.swing * 1000);
            auto at = [&](int64_t k) {
                return pulse_frame(k, g.rate, g.ubpm, g.subdivisions, g.divisor, g.multiplier, swing);
            };
            // About a million frames of each grid (24 pulses at least, 200 at most).
            const int64_t count = std::clamp<int64_t>(1000000 / std::max<int64_t>(at(1), 1), 24, 200);
            int64_t k = 0;  // pulses played so far
            const int64_t per_bar = 3 * g.subdivisions;
            const auto out = render_mono(core, static_cast<size_t>(at(count) + 1), g.max_block, seed, [&](int64_t done) {
                while (at(k) < done) ++k;
                ASSERT_EQ(core.next_pulse_frame(), at(k)) << "after frame " << done;
                ASSERT_EQ(core.last_pulse_frame(), at(k - 1)) << "after frame " << done;
                const MetronomeSnapshot s = snapshot(core);
                ASSERT_EQ(s.bar, (k - 1) / per_bar);
                ASSERT_EQ(s.beat, ((k - 1) % per_bar) / g.subdivisions);
                ASSERT_EQ(s.subdivision, (k - 1) % g.subdivisions);
                ASSERT_EQ(s.frame_clock, static_cast<uint64_t>(done));
            });
            std::vector<Click> clicks;
            for (int64_t j = 0; j <= count; ++j) clicks.push_back({at(j), 2, false, j % g.subdivisions == 0 ? 0.6 : 0.3});
            EXPECT_EQ(track_difference(core, out, clicks), "");
        }
    }
}

// --------------------------------------------------------- pattern and bars

TEST(BeatScheduling, AccentLevelsChooseSoundAndGain) {
    // 0.004 is the quietest subdivision not worth a voice; soft beats still sound.
    for (double subdivision_gain : {0.3, 0.004, 0.0041}) {
        const bool subdivisions_sound = subdivision_gain > 0.004;
        MetronomeCore core;
        MetronomeConfig c = base_config();
        c.beats_per_bar = 5;
        c.subdivisions = 2;
        c.subdivision_gain = subdivision_gain;
        const uint8_t levels[5] = {4, 3, 2, 1, 0};
        for (int i = 0; i < 5; ++i) c.accent_pattern[i] = levels[i];
        c.accent_pattern[5] = 1;  // beat 5 does not exist in a 5-beat bar: never read
        core.start(c);
        const std::vector<float> out = render_mono(core, 2 * 10 * 12000, 256);
        std::vector<Click> clicks;
        for (int64_t j = 0; j < 20; ++j) {
            const int64_t f = j * 12000;
            const int beat = static_cast<int>((j / 2) % 5);
            if (j % 2 == 1) {
                if (beat != 4 && subdivisions_sound) clicks.push_back({f, 2, false, subdivision_gain});
            } else if (levels[beat] >= 3) {
                clicks.push_back({f, 2, true, levels[beat] == 4 ? 0.9 : 0.9 * 0.7});
            } else if (levels[beat] >= 1) {
                clicks.push_back({f, 2, false, levels[beat] == 2 ? 0.6 : subdivision_gain});
            }
        }
        EXPECT_EQ(track_difference(core, out, clicks), "") << subdivision_gain;
    }
}

// The count-in too: accented beats only, in bars -2 and -1, with the state
// running from the moment the next pulse belongs to bar 0.
TEST(BeatScheduling, GapTrainerSilencesItsBarsButNeverTheCountIn) {
    MetronomeCore core;
    MetronomeConfig c = base_config();
    c.beats_per_bar = 2;
    c.count_in_bars = 2;
    c.play_bars = 2;
    c.mute_bars = 1;
    c.poly_pulses = 3;  // the second rhythm falls silent with the bar
    core.start(c);
    const int64_t beat = 24000, bar = 2 * beat;
    std::map<int64_t, int32_t> muted;
    const auto out = render_mono(core, 8 * bar, 500, 0, [&](int64_t done) {
        // After a bar's first beat the flag describes that bar; after its last
        // one it already describes the next.
        const MetronomeSnapshot s = snapshot(core);
        if (s.beat == 0) muted[s.bar] = s.bar_muted;
        EXPECT_EQ(s.state, core.next_pulse_frame() >= 2 * bar ? mn_state_running : mn_state_count_in) << done;
    });
    const std::map<int64_t, int32_t> expect_muted = {{-2, 0}, {-1, 0}, {0, 0}, {1, 0},
                                                     {2, 1},  {3, 0},  {4, 0}, {5, 1}};
    EXPECT_EQ(muted, expect_muted);
    std::vector<Click> clicks;
    for (int64_t j = 0; j < 4; ++j) clicks.push_back({j * beat, 2, true, 0.9});
    for (int64_t b = 0; b <= 5; ++b) {
        const int64_t start = (b + 2) * bar;
        if (b % 3 == 2) continue;
        clicks.push_back({start, 2, false, 0.6});
        clicks.push_back({start + beat, 2, false, 0.6});
        for (int64_t j = 0; j < 3; ++j) clicks.push_back({start + j * 16000, 5, j == 0, 0.45});
    }
    EXPECT_EQ(track_difference(core, out, clicks), "");
}

TEST(BeatScheduling, RandomDropFollowsTheSeededSequence) {
    struct Row { uint32_t seed; double probability; };
    const Row rows[] = {{12345, 0.5}, {0, 0.5}, {777, 0.25}, {42, 1.0}};
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "seed " << r.seed << ", p " << r.probability);
        MetronomeCore core;
        MetronomeConfig c = base_config();
        c.subdivisions = 2;
        c.count_in_bars = 1;  // count-in beats draw nothing
        c.random_seed = r.seed;
        c.drop_probability = r.probability;
        c.accent_pattern[3] = mn_level_silent;  // silent beats draw nothing either
        core.start(c);
        const int64_t pulse = 12000, bars = 6;
        const std::vector<float> out = render_mono(core, static_cast<size_t>((bars + 1) * 8 * pulse), 480, 3);
        std::vector<Click> clicks;
        uint32_t x = r.seed != 0 ? r.seed : 0x9E3779B9u;  // xorshift32 from the seed
        int dropped = 0;
        // The count-in ignores the pattern: beat 3 sounds.
        for (int64_t j = 0; j < 8; j += 2) clicks.push_back({j * pulse, 2, true, 0.9});
        for (int64_t b = 0; b < bars; ++b) {
            for (int64_t beat = 0; beat < 3; ++beat) {
                x ^= x << 13;
                x ^= x >> 17;
                x ^= x << 5;
                if (r.probability > x / 4294967296.0) {
                    ++dropped;
                    continue;  // the beat and its subdivision
                }
                const int64_t f = (8 + b * 8 + beat * 2) * pulse;
                clicks.push_back({f, 2, false, 0.6});
                clicks.push_back({f + pulse, 2, false, 0.3});
            }
        }
        if (r.probability < 1.0) {
            EXPECT_TRUE(dropped > 0 && dropped < bars * 3);
        }
        EXPECT_EQ(track_difference(core, out, clicks), "");
        // A new start replays the same sequence.
        core.start(c);
        EXPECT_TRUE(render_mono(core, out.size(), 480, 3) == out);
    }
}

TEST(BeatScheduling, SecondRhythmDividesEveryBarEvenly) {
    struct Row { int64_t rate, ubpm; int32_t beats, subdivisions, poly; double swing; };
    const Row rows[] = {{48000, 120000000, 4, 1, 3, 0.5},   // 96000-frame bars: 0, 32000, 64000
                        {44100, 110000000, 3, 2, 7, 0.5},   // neither bar nor parts whole frames
                        {44100, 97000000, 4, 2, 5, 0.66},   // swing moves pulses, not the second rhythm
                        {48000, 60000000, 1, 1, 32, 0.5},
                        // More parts than beats: the last parts fall after the bar's last beat.
                        {44100, 140000000, 2, 3, 3, 0.5}};
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.rate << " Hz, " << r.poly << " over " << r.beats);
        MetronomeCore core;
        core.prepare(static_cast<double>(r.rate));
        MetronomeConfig c = base_config();
        c.tempo_ubpm = r.ubpm;
        c.beats_per_bar = r.beats;
        c.subdivisions = r.subdivisions;
        c.swing = r.swing;
        c.poly_pulses = r.poly;
        for (auto& level : c.accent_pattern) level = mn_level_silent;  // only the second rhythm sounds
        core.start(c);
        const int64_t pulses_per_bar = r.beats * r.subdivisions, bars = 5;
        const int64_t frames = pulse_frame(bars * pulses_per_bar, r.rate, r.ubpm, r.subdivisions);
        const std::vector<float> out = render_mono(core, static_cast<size_t>(frames), 600, 11);
        std::vector<Click> clicks;
        for (int64_t b = 0; b < bars; ++b) {
            const int64_t bar_start = pulse_frame(b * pulses_per_bar, r.rate, r.ubpm, r.subdivisions);
            for (int64_t j = 0; j < r.poly; ++j) {
                // j / poly of a bar of `beats` beats, from this bar's first frame.
                const int64_t offset = j * r.rate * 60000 * r.beats / ((r.ubpm / 1000) * r.poly);
                clicks.push_back({bar_start + offset, 5, j == 0, 0.45});
            }
        }
        EXPECT_EQ(track_difference(core, out, clicks), "");
    }
}

// ------------------------------------------------------------------- ramps

// Tempo of each bar as the snapshot shows it on the bar's second beat, and
// the length of that beat.
std::map<int64_t, std::pair<int64_t, int64_t>> tempos_by_bar(MetronomeCore& core, int64_t bars) {
    std::map<int64_t, std::pair<int64_t, int64_t>> seen;
    std::vector<float> block(256);
    for (int guard = 0; guard < 5000000 && static_cast<int64_t>(seen.size()) < bars; ++guard) {
        core.render(block.data(), 256, 1);
        const MetronomeSnapshot s = snapshot(core);
        if (s.beat == 1 && !seen.count(s.bar)) {
            seen[s.bar] = {s.tempo_ubpm, core.next_pulse_frame() - core.last_pulse_frame()};
        }
    }
    return seen;
}

TEST(BeatScheduling, RampsReachTheirTargetAndStay) {
    struct Row { int32_t mode; int64_t from, to, step; int32_t interval; std::vector<int64_t> bpm_by_bar; };
    const Row rows[] = {
        {1, 100, 110, 4, 2, {100, 100, 104, 104, 108, 108, 110, 110}},  // the last step stops at the target
        {1, 120, 100, 0, 1, {120, 116, 112, 108, 104, 100, 100}},        // downwards; step 0 means 4 BPM
        {2, 100, 140, 0, 8, {100, 105, 110, 115, 120, 125, 130, 135, 140, 140}},
        {2, 140, 100, 0, 4, {140, 130, 120, 110, 100, 100}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "mode " << r.mode << ", " << r.from << " to " << r.to);
        MetronomeCore core;
        MetronomeConfig c = base_config();
        c.tempo_ubpm = r.from * 1000000;
        c.ramp_mode = r.mode;
        c.ramp_target_ubpm = r.to * 1000000;
        c.ramp_step_ubpm = r.step * 1000000;
        c.ramp_interval_bars = r.interval;
        core.start(c);
        const auto seen = tempos_by_bar(core, static_cast<int64_t>(r.bpm_by_bar.size()));
        for (size_t b = 0; b < r.bpm_by_bar.size(); ++b) {
            ASSERT_TRUE(seen.count(static_cast<int64_t>(b)));
            const auto [tempo, beat_length] = seen.at(static_cast<int64_t>(b));
            EXPECT_EQ(tempo, r.bpm_by_bar[b] * 1000000) << "bar " << b;
            // A beat of the bar lasts 60 s / BPM, within the one frame of rounding.
            const double exact = 48000.0 * 60.0 / static_cast<double>(r.bpm_by_bar[b]);
            EXPECT_LT(std::fabs(static_cast<double>(beat_length) - exact), 1.0) << "bar " << b;
        }
    }
}

TEST(BeatScheduling, ARampKeepsClimbingThroughAConfigureButATempoCommandEndsIt) {
    MetronomeCore core;
    MetronomeConfig c = base_config();
    c.tempo_ubpm = 100000000;
    c.ramp_mode = mn_ramp_linear;
    c.ramp_target_ubpm = 140000000;
    c.ramp_interval_bars = 8;
    core.start(c);
    EXPECT_EQ(tempos_by_bar(core, 4).at(3).first, 115000000);
    MetronomeConfig next = c;
    next.tempo_ubpm = 60000000;  // ignored on the fly while a ramp is configured
    next.sound = 4;
    core.configure(next);
    auto seen = tempos_by_bar(core, 3);
    EXPECT_EQ(seen.at(4).first, 120000000);
    EXPECT_EQ(seen.at(5).first, 125000000);
    EXPECT_EQ(core.active_config().sound, 4);
    core.set_tempo(90000000);
    seen = tempos_by_bar(core, 3);
    EXPECT_EQ(core.active_config().ramp_mode, mn_ramp_none);
    for (const auto& [bar, t] : seen) EXPECT_EQ(t.first, 90000000) << bar;
    // A start with the ramp configured ramps again, from its own tempo.
    core.start(c);
    EXPECT_EQ(tempos_by_bar(core, 3).at(2).first, 110000000);
}

// ---------------------------------------------------- commands on the fly

TEST(BeatScheduling, ConfigureAppliesAtOnceWhenStoppedAndAtTheNextBarLineWhenRunning) {
    MetronomeCore core;
    MetronomeConfig slow = base_config();
    slow.tempo_ubpm = 77000000;
    core.configure(slow);
    render_mono(core, 32, 32);
    EXPECT_FALSE(core.has_pending_config());
    EXPECT_EQ(core.tempo_ubpm(), 77000000);
    EXPECT_EQ(core.master_gain(), MetronomeCore::kInitialMasterGain);  // waits for a start
    EXPECT_EQ(snapshot(core).state, mn_state_stopped);

    core.start(base_config());  // 120 BPM, 4 beats, 24000-frame beats
    const int64_t beat = 24000;
    const int64_t pushed_at = 5 * beat + 1000;  // bar 1, just after its second beat
    MetronomeConfig next = base_config();
    next.tempo_ubpm = 90000000;  // 32000-frame beats, two pulses of 16000
    next.subdivisions = 2;
    next.sound = 1;
    for (auto& level : next.accent_pattern) level = mn_level_accent;
    const auto out = render_mono(core, 16 * beat, 1000, 0, [&](int64_t done) {
        if (done == pushed_at) core.configure(next);
        // Bar 2 begins, and the new settings with it, as soon as the last
        // pulse of bar 1 (frame 168000) has been played.
        if (done > pushed_at) {
            EXPECT_EQ(core.has_pending_config(), done <= 7 * beat) << done;
            EXPECT_EQ(snapshot(core).tempo_ubpm, done <= 7 * beat ? 120000000 : 90000000) << done;
        }
    });
    std::vector<Click> clicks;
    for (int64_t j = 0; j < 8; ++j) clicks.push_back({j * beat, 2, false, 0.6});
    // Bar 2 starts where the old tempo put it; the new pulse length runs from there.
    for (int64_t j = 0; 8 * beat + j * 16000 < static_cast<int64_t>(out.size()); ++j) {
        clicks.push_back({8 * beat + j * 16000, 1, j % 2 == 0, j % 2 == 0 ? 0.9 : 0.3});
    }
    EXPECT_EQ(track_difference(core, out, clicks), "");
}

TEST(BeatScheduling, PauseAndResumeKeepThePosition) {
    MetronomeConfig c = base_config();
    c.subdivisions = 3;
    c.count_in_bars = 1;
    MetronomeCore reference, paused;
    reference.start(c);
    paused.start(c);
    const int64_t total = 12 * 24000;
    const std::vector<float> expect = render_mono(reference, static_cast<size_t>(total), 480);
    // Pause 2880 frames after a pulse (sound 2 is 960 long, nothing is cut).
    const int64_t pause_at = 30 * 8000 + 2880;
    std::vector<float> got = render_mono(paused, static_cast<size_t>(pause_at), 480);
    paused.pause();
    for (int i = 0; i < 25; ++i) {
        for (float s : render_mono(paused, 480, 480)) ASSERT_EQ(s, 0.0f);
        ASSERT_EQ(snapshot(paused).state, mn_state_paused);
        ASSERT_EQ(snapshot(paused).frame_clock, static_cast<uint64_t>(pause_at));
    }
    paused.resume();
    const std::vector<float> rest = render_mono(paused, static_cast<size_t>(total - pause_at), 480);
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_TRUE(got == expect);
    EXPECT_EQ(snapshot(paused).state, mn_state_running);
    // A pause in the count-in cuts the sounding click and resumes into the count-in.
    MetronomeCore early;
    early.start(c);
    render_mono(early, 100, 100);
    early.pause();
    render_mono(early, 64, 64);
    EXPECT_EQ(early.voices().active_count(), 0);
    early.resume();
    render_mono(early, 64, 64);
    EXPECT_EQ(snapshot(early).state, mn_state_count_in);
}

TEST(BeatScheduling, StopFadesOverExactlyOneBlockOrCutsAPause) {
    for (uint32_t block : {1u, 517u}) {
        MetronomeCore reference, stopped;
        MetronomeConfig c = base_config();
        c.sound = 4;  // long enough to still sound when the stop comes
        reference.start(c);
        stopped.start(c);
        render_mono(reference, 24100, 100);
        render_mono(stopped, 24100, 100);
        stopped.stop();
        std::vector<float> a(block * 2), b(block * 2);
        reference.render(a.data(), block, 2);
        stopped.render(b.data(), block, 2);
        for (uint32_t i = 0; i < block * 2; ++i) {
            const float scale = 1.0f - static_cast<float>(i / 2) / static_cast<float>(block);
            ASSERT_EQ(b[i], a[i] * scale) << block << " " << i;
        }
        EXPECT_TRUE(std::any_of(a.begin(), a.end(), [](float x) { return x != 0.0f; }));
        EXPECT_EQ(snapshot(stopped).state, mn_state_stopped);
        EXPECT_EQ(snapshot(stopped).frame_clock, 24100u);  // the fade block does not move the clock
        stopped.render(b.data(), block, 2);
        for (float x : b) ASSERT_EQ(x, 0.0f);
    }
    // Nothing is published before a block is rendered; each start counts a run.
    MetronomeCore core;
    MetronomeSnapshot s;
    float block[256];
    core.render(nullptr, 8, 1);
    core.render(block, 0, 1);
    core.render(block, 8, 0);
    EXPECT_FALSE(core.read_snapshot(&s));
    for (uint64_t run = 1; run <= 2; ++run) {
        core.start(base_config());
        core.render(block, 100, 1);
        core.render(block, 100, 1);
        s = snapshot(core);
        EXPECT_EQ(s.run_id, run);
        EXPECT_EQ(s.frame_clock, 200u);
        EXPECT_EQ(s.publish_count, 2 * run);
    }
    core.pause();
    core.stop();  // both drained before the next block: paused, then stopped at once
    core.render(block, 256, 1);
    for (float x : block) EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(snapshot(core).state, mn_state_stopped);
}

// ----------------------------------------------------------------- snapshot

TEST(MetronomeSnapshotRecord, PhasesFollowThePositionInBeatAndBar) {
    struct Row { int64_t at; int32_t beats; double beat_phase, bar_phase; int32_t beat, subdivision; };
    // 120 BPM, 48 kHz, two pulses of 12000 frames per beat.
    const Row rows[] = {
        {30000, 4, 0.25, 0.3125, 1, 0},  // half way through the first pulse of beat 1
        {42000, 4, 0.75, 0.4375, 1, 1},  // half way through its second pulse
        {6000, 1, 0.25, 0.25, 0, 0},     // one beat per bar: bar phase is beat phase
    };
    for (const Row& r : rows) {
        MetronomeCore core;
        MetronomeConfig c = base_config();
        c.subdivisions = 2;
        c.beats_per_bar = r.beats;
        core.start(c);
        render_mono(core, static_cast<size_t>(r.at), 1000);
        const MetronomeSnapshot s = snapshot(core);
        EXPECT_DOUBLE_EQ(s.beat_phase, r.beat_phase) << r.at;
        EXPECT_DOUBLE_EQ(s.bar_phase, r.bar_phase) << r.at;
        EXPECT_EQ(s.beat, r.beat) << r.at;
        EXPECT_EQ(s.subdivision, r.subdivision) << r.at;
    }
}

}  // namespace
