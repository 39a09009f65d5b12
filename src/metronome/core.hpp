// The metronome's core: a pure object (no device, no threads, no audio
// back end) that turns commands into a sample-accurate click track. The
// engine owns one, feeds it commands from host threads and calls render()
// from the device's audio callback; the offline export drives a private one
// directly. Scheduling maths: NOTES.md in this folder.
//
// What the owner may assume, and must guarantee:
//  - Control side: prepare() and the command methods (start ... push) are
//    called by one thread at a time; the engine serialises them with its
//    family and control mutexes. They never block, fail or allocate, except
//    prepare(), which allocates the click tables.
//  - prepare() must not overlap render(): call it while the device is
//    initialised but not started (or before the first render). It silences
//    every voice, because the tables the voices point into are replaced.
//  - Audio side: render() is called by one thread at a time, normally the
//    device callback. Audio thread: no locks, no allocation, no blocking.
//  - read_snapshot() may be called from any thread at any time, by any
//    number of readers, concurrently with everything above.
//  - Nothing is trusted: configurations are range-checked when pushed,
//    tempos and gains clamped when applied, so the owner may pass raw host
//    values (it may also check them first; checking twice changes nothing).
//  - Commands take effect at the start of the next render() block, in the
//    order pushed. With 32 commands waiting, a new one replaces the newest
//    waiting one instead (the call still succeeds).
#pragma once

#include <cstdint>

#include "frame/seqlock.hpp"
#include "metronome/command_queue.hpp"
#include "metronome/config.hpp"
#include "metronome/sound_bank.hpp"
#include "metronome/voices.hpp"
#include "woodshed/metronome.h"

namespace ws::metronome {

enum class CommandType : uint32_t {
    start = 1,            // config: restart the pattern from the count-in
    stop = 2,             // fade out over the next block (at once when stopped or paused)
    pause = 3,            // cut the clicks, keep the position
    resume = 4,           // continue from the paused position
    set_tempo = 5,        // int_value: millionths of BPM; cancels a ramp
    set_master_gain = 6,  // float_value: 0..1
    configure = 7,        // config: at once when stopped, else at the next bar line
};

struct MetronomeCommand {
    uint32_t type = 0;  // CommandType; unknown values are skipped
    int64_t int_value = 0;
    double float_value = 0.0;
    MetronomeConfig config{};
};

class MetronomeCore {
public:
    static constexpr int64_t kInitialTempo = 120000000;
    static constexpr float kInitialMasterGain = 0.8f;

    // Stopped, 120 BPM, master gain 0.8, tables rendered for 48000 Hz.
    MetronomeCore();
    MetronomeCore(const MetronomeCore&) = delete;
    MetronomeCore& operator=(const MetronomeCore&) = delete;

    // ---- Control side (one thread at a time; see the rules above) ----

    // Renders the click tables for `sample_rate` (NaN, infinite or outside
    // 8000..384000 Hz gives 48000) and places clicks at that rate from now
    // on. Allocates. Not concurrently with render().
    void prepare(double sample_rate);
    double sample_rate() const { return rate_; }

    void start(const MetronomeConfig& config);
    void stop();
    void pause();
    void resume();
    void set_tempo(int64_t ubpm);
    void set_master_gain(double gain);
    void configure(const MetronomeConfig& config);
    // Any command; the configuration of start and configure is range-checked
    // here. Returns true if it replaced the newest waiting command.
    bool push(const MetronomeCommand& command);

    // ---- Audio thread: no locks, no allocation, no blocking ----

    // Overwrites `out` (frames x channels interleaved floats, -1..1) with the
    // next block of the click track, after applying the waiting commands,
    // and publishes a snapshot. Does nothing for a null `out` or zero frames
    // or channels.
    void render(float* out, uint32_t frames, uint32_t channels);

    // ---- Any thread ----

    // True with a consistent copy of the last published snapshot; false if
    // none has been published or no consistent copy was had in 8 attempts.
    bool read_snapshot(MetronomeSnapshot* out) const { return snapshot_.read(out); }

    // ---- Inspection: the audio thread, or a test that drives render() ----

    const MetronomeConfig& active_config() const { return config_; }
    bool has_pending_config() const { return pending_flag_; }
    int32_t state() const { return state_; }
    uint64_t frame_clock() const { return frame_clock_; }
    int64_t next_pulse_frame() const { return next_pulse_frame_; }
    int64_t last_pulse_frame() const { return last_pulse_frame_; }
    int64_t tempo_ubpm() const { return tempo_; }
    float master_gain() const { return master_gain_; }
    const VoicePool& voices() const { return voices_; }
    const SoundBank& sound_bank() const { return bank_; }

private:
    void drain_commands();
    void handle(const MetronomeCommand& command);
    void apply_config(const MetronomeConfig& config, bool restart);
    void recompute_timing();
    void bar_start();
    void advance_pulse();
    void realign_poly();
    void play_poly(int64_t limit, bool through_limit, int64_t block_start);
    void sound_pulse(int64_t offset);
    void click(int32_t sound, bool accent, double gain, int64_t offset);
    void publish();

    // Sounds and rate: written only by prepare().
    SoundBank bank_;
    double rate_ = 48000.0;
    int64_t rate_int_ = 48000;  // the rate rounded, which the pulse arithmetic uses

    CommandQueue<MetronomeCommand> queue_;

    // Everything below belongs to the audio thread once rendering has begun.
    MetronomeConfig config_;
    MetronomeConfig pending_;
    bool pending_flag_ = false;

    uint64_t run_id_ = 0;
    uint64_t frame_clock_ = 0;

    // Pulse k + 1 lies numerator / denominator frames after pulse k; the
    // fraction is carried in pulse_remainder_, so positions are exact.
    int64_t next_pulse_frame_ = 0;
    int64_t last_pulse_frame_ = 0;
    int64_t pulse_remainder_ = 0;
    int64_t pulse_numerator_ = 0;
    int64_t long_numerator_ = 0;   // first pulse of a swung pair
    int64_t short_numerator_ = 0;  // second pulse of a swung pair
    int64_t pulse_denominator_ = 1;
    int64_t current_pulse_length_ = 1;

    int64_t tempo_ = kInitialTempo;
    int64_t ramp_start_tempo_ = kInitialTempo;

    // Position of the next pulse, and of the last one played.
    int64_t bar_ = 0;
    int32_t beat_ = 0;
    int32_t subdivision_ = 0;
    int64_t last_bar_ = 0;
    int32_t last_beat_ = 0;
    int32_t last_subdivision_ = 0;

    int32_t state_ = mn_state_stopped;
    bool stop_requested_ = false;
    bool beat_dropped_ = false;
    bool bar_muted_ = false;
    uint32_t rng_ = kDefaultSeed;
    float master_gain_ = kInitialMasterGain;

    // The second rhythm's grid for the current bar, laid on each bar line
    // when the bar's first pulse is reached (see NOTES.md).
    int64_t poly_next_frame_ = 0;
    int64_t poly_remainder_ = 0;
    int64_t poly_numerator_ = 0;
    int64_t poly_denominator_ = 1;
    int32_t poly_count_ = 0;
    int32_t poly_grid_pulses_ = 0;
    int32_t poly_sound_ = 5;
    double poly_gain_ = 0.0;  // 0 for a count-in or muted bar

    VoicePool voices_;

    frame::SeqLock<MetronomeSnapshot> snapshot_;
    uint64_t publish_count_ = 0;
};

}  // namespace ws::metronome
