/*
 * Woodshed metronome (mn_): sample-accurate click track.
 *
 * Clicks are short pre-rendered sounds (six of them, each with a normal and
 * an accent version) placed on exact frames: pulse k of a steady tempo starts
 * on frame floor(k x frames-per-pulse) counted from the start, so the click
 * never drifts however long it runs. A bar has beats_per_bar beats of
 * `subdivisions` pulses each, with swing, an accent pattern, count-in bars, a
 * gap trainer (bars that play, bars that are silent), random beat drop, a
 * second rhythm that divides each bar evenly, and tempo ramps.
 *
 * Units: tempos are signed 64-bit millionths of a beat per minute (120 BPM is
 * 120000000); gains are linear factors 0..1; positions are frames.
 *
 * Latency: the output device holds about 100 ms of click ahead of what is
 * heard (6 ms blocks with 100 ms of buffer behind them; on PulseAudio one
 * 100 ms block), enough for a sound server to keep the click steady on a
 * busy machine. So a start, stop or tempo change is heard up to about
 * 100 ms after the call, plus the device's own latency. The snapshot
 * reports the frame being rendered, which is ahead of the frame being heard
 * by that buffer: a display that must line up with the sound delays what it
 * shows by about 100 ms.
 */
#ifndef WOODSHED_METRONOME_H
#define WOODSHED_METRONOME_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Limits of the tempo fields and of the tempo argument, millionths of BPM. */
#define MN_TEMPO_MIN_UBPM 10000000LL
#define MN_TEMPO_MAX_UBPM 400000000LL

/* MetronomeConfig.ramp_mode */
typedef enum mn_ramp_mode {
    mn_ramp_none = 0,
    mn_ramp_stepwise = 1, /* ramp_step_ubpm every ramp_interval_bars bars */
    mn_ramp_linear = 2    /* straight line to the target over ramp_interval_bars bars */
} mn_ramp_mode;

/* MetronomeConfig.accent_pattern levels */
typedef enum mn_level {
    mn_level_silent = 0,  /* the beat and all its subdivisions are silent */
    mn_level_soft = 1,    /* normal sound at subdivision_gain */
    mn_level_normal = 2,  /* normal sound at beat_gain */
    mn_level_medium = 3,  /* accent sound at 0.7 x accent_gain */
    mn_level_accent = 4   /* accent sound at accent_gain */
} mn_level;

/* Metronome settings (176 bytes). Every field is range-checked when the
 * library receives the record; a value outside its range is replaced as
 * listed, never rejected:
 *   tempo_ubpm          10000000..400000000 (10..400 BPM), clamped
 *   beats_per_bar       1..32, clamped
 *   subdivisions        1..12 pulses per beat, clamped
 *   beat_divisor        1..8, clamped      } one pulse lasts
 *   beat_multiplier     1..2, clamped      } 60 s x multiplier / (BPM x divisor x subdivisions)
 *   swing               0.5..0.75, clamped; NaN or infinite becomes 0.5
 *   master_gain, accent_gain, beat_gain, subdivision_gain, drop_probability,
 *   poly_gain           0..1; NaN, infinite or negative becomes 0, above 1 becomes 1
 *   sound               0..5: woodblock, beep, tick, hihat, cowbell, clave;
 *                       anything else becomes 0
 *   count_in_bars       0..8, clamped
 *   play_bars           0..64, clamped
 *   mute_bars           0..64, clamped; when it is then 1 or more and
 *                       play_bars is 0, play_bars becomes 1
 *   random_seed         any; 0 selects the default seed 0x9E3779B9
 *   poly_pulses         0..32, clamped (0: no second rhythm)
 *   poly_sound          0..5 as sound, anything else becomes 5 (not 0: deliberate)
 *   ramp_mode           mn_ramp_mode; anything else becomes 0
 *   ramp_target_ubpm    10000000..400000000, clamped
 *   ramp_step_ubpm      0..100000000, clamped; 0 means 4 BPM (4000000)
 *   ramp_interval_bars  1..128, clamped
 *   accent_pattern      mn_level per beat (beat number modulo 32); above 4 becomes 2
 *   reserved*           copied, never read
 * An all-zero record is valid: 10 BPM, one silent beat per bar, all gains 0.
 *
 * Swing applies only with an even number of subdivisions: each pair of
 * pulses is split swing : (1 - swing), so a pair always lasts two pulses.
 * Count-in bars play the accent sound of `sound` on every beat at
 * accent_gain, ignoring the pattern, the gap trainer and the drop. The gap
 * trainer plays play_bars bars, then silences mute_bars bars, and repeats
 * (off while either is 0). The second rhythm splits each bar (without swing)
 * into poly_pulses equal parts, restarting on every bar line; its first
 * pulse uses the accent sound of poly_sound, the others the normal one. */
typedef struct MetronomeConfig {
    int64_t tempo_ubpm;         /*   0 */
    int32_t beats_per_bar;      /*   8 */
    int32_t subdivisions;       /*  12 */
    int32_t beat_divisor;       /*  16 */
    int32_t beat_multiplier;    /*  20 */
    double swing;               /*  24: share of a pulse pair given to its first pulse */
    double master_gain;         /*  32: gain of the whole mix (0.85 headroom is applied on top) */
    double accent_gain;         /*  40: accented beats and count-in clicks */
    double beat_gain;           /*  48: normal beats */
    double subdivision_gain;    /*  56: subdivision pulses and soft beats */
    int32_t sound;              /*  64: click sound of the main pulse, 0..5 */
    int32_t count_in_bars;      /*  68 */
    int32_t play_bars;          /*  72: gap trainer, bars that sound */
    int32_t mute_bars;          /*  76: gap trainer, bars that are silent */
    double drop_probability;    /*  80: chance that a beat is left out */
    uint32_t random_seed;       /*  88: seed of the drop sequence, 0 for the default */
    int32_t poly_pulses;        /*  92: pulses of the second rhythm per bar, 0 off */
    int32_t poly_sound;         /*  96 */
    uint8_t reserved0[4];       /* 100 */
    double poly_gain;           /* 104 */
    int32_t ramp_mode;          /* 112: mn_ramp_mode */
    uint8_t reserved1[4];       /* 116 */
    int64_t ramp_target_ubpm;   /* 120 */
    int64_t ramp_step_ubpm;     /* 128: stepwise change per step, 0 for 4 BPM */
    int32_t ramp_interval_bars; /* 136: bars per step (stepwise) or ramp length in bars (linear) */
    uint8_t accent_pattern[32]; /* 140: mn_level of each beat of the bar */
    uint8_t reserved2[4];       /* 172 */
} MetronomeConfig;

WS_STATIC_ASSERT(sizeof(MetronomeConfig) == 176, "MetronomeConfig is 176 bytes");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, tempo_ubpm) == 0, "MetronomeConfig.tempo_ubpm");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, beats_per_bar) == 8, "MetronomeConfig.beats_per_bar");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, subdivisions) == 12, "MetronomeConfig.subdivisions");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, beat_divisor) == 16, "MetronomeConfig.beat_divisor");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, beat_multiplier) == 20, "MetronomeConfig.beat_multiplier");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, swing) == 24, "MetronomeConfig.swing");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, master_gain) == 32, "MetronomeConfig.master_gain");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, accent_gain) == 40, "MetronomeConfig.accent_gain");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, beat_gain) == 48, "MetronomeConfig.beat_gain");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, subdivision_gain) == 56, "MetronomeConfig.subdivision_gain");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, sound) == 64, "MetronomeConfig.sound");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, count_in_bars) == 68, "MetronomeConfig.count_in_bars");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, play_bars) == 72, "MetronomeConfig.play_bars");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, mute_bars) == 76, "MetronomeConfig.mute_bars");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, drop_probability) == 80, "MetronomeConfig.drop_probability");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, random_seed) == 88, "MetronomeConfig.random_seed");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, poly_pulses) == 92, "MetronomeConfig.poly_pulses");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, poly_sound) == 96, "MetronomeConfig.poly_sound");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, reserved0) == 100, "MetronomeConfig.reserved0");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, poly_gain) == 104, "MetronomeConfig.poly_gain");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, ramp_mode) == 112, "MetronomeConfig.ramp_mode");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, reserved1) == 116, "MetronomeConfig.reserved1");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, ramp_target_ubpm) == 120, "MetronomeConfig.ramp_target_ubpm");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, ramp_step_ubpm) == 128, "MetronomeConfig.ramp_step_ubpm");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, ramp_interval_bars) == 136, "MetronomeConfig.ramp_interval_bars");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, accent_pattern) == 140, "MetronomeConfig.accent_pattern");
WS_STATIC_ASSERT(offsetof(MetronomeConfig, reserved2) == 172, "MetronomeConfig.reserved2");

/* MetronomeStatus.device_state */
typedef enum mn_device_state {
    mn_device_not_opened = 0,
    mn_device_running = 1,
    mn_device_reopening = 2, /* the library is reopening the device after a device event */
    mn_device_failed = 3
} mn_device_state;

/* State of the playback device (32 bytes). */
typedef struct MetronomeStatus {
    uint64_t update_count;   /*  0: 1 after creation, +1 on every status change */
    int32_t device_state;    /*  8: mn_device_state */
    int32_t last_result;     /* 12: ws_result of the last failure, 0 after success */
    int32_t backend_result;  /* 16: raw audio back-end result behind last_result, 0 after success */
    uint32_t sample_rate;    /* 20: rate of the open device, Hz */
    uint32_t channels;       /* 24: channel count of the open device */
    uint32_t used_default;   /* 28: 1 when the requested device was not found and the default plays */
} MetronomeStatus;

WS_STATIC_ASSERT(sizeof(MetronomeStatus) == 32, "MetronomeStatus is 32 bytes");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, update_count) == 0, "MetronomeStatus.update_count");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, device_state) == 8, "MetronomeStatus.device_state");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, last_result) == 12, "MetronomeStatus.last_result");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, backend_result) == 16, "MetronomeStatus.backend_result");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, sample_rate) == 20, "MetronomeStatus.sample_rate");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, channels) == 24, "MetronomeStatus.channels");
WS_STATIC_ASSERT(offsetof(MetronomeStatus, used_default) == 28, "MetronomeStatus.used_default");

/* MetronomeSnapshot.state */
typedef enum mn_state {
    mn_state_stopped = 0,
    mn_state_count_in = 1,
    mn_state_running = 2,
    mn_state_paused = 3
} mn_state;

/* Position of the click, published after every audio block (80 bytes). */
typedef struct MetronomeSnapshot {
    uint64_t publish_count; /*  0: snapshots published so far */
    uint64_t run_id;        /*  8: starts so far */
    uint64_t frame_clock;   /* 16: frames played since the last start (end of the last block) */
    int64_t bar;            /* 24: bar of the last pulse; negative during count-in */
    int32_t beat;           /* 32: beat of the last pulse within its bar, from 0 */
    int32_t subdivision;    /* 36: pulse of the last pulse within its beat, from 0 */
    double beat_phase;      /* 40: progress through the current beat, 0..1 */
    double bar_phase;       /* 48: progress through the current bar, 0..1 */
    int64_t tempo_ubpm;     /* 56: tempo in force (moves during a ramp) */
    int32_t state;          /* 64: mn_state */
    int32_t bar_muted;      /* 68: 1 while the gap trainer silences the bar */
    int32_t sample_rate;    /* 72: rate the clicks are placed at, Hz, rounded */
    int32_t reserved;       /* 76: zero */
} MetronomeSnapshot;

WS_STATIC_ASSERT(sizeof(MetronomeSnapshot) == 80, "MetronomeSnapshot is 80 bytes");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, publish_count) == 0, "MetronomeSnapshot.publish_count");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, run_id) == 8, "MetronomeSnapshot.run_id");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, frame_clock) == 16, "MetronomeSnapshot.frame_clock");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, bar) == 24, "MetronomeSnapshot.bar");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, beat) == 32, "MetronomeSnapshot.beat");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, subdivision) == 36, "MetronomeSnapshot.subdivision");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, beat_phase) == 40, "MetronomeSnapshot.beat_phase");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, bar_phase) == 48, "MetronomeSnapshot.bar_phase");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, tempo_ubpm) == 56, "MetronomeSnapshot.tempo_ubpm");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, state) == 64, "MetronomeSnapshot.state");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, bar_muted) == 68, "MetronomeSnapshot.bar_muted");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, sample_rate) == 72, "MetronomeSnapshot.sample_rate");
WS_STATIC_ASSERT(offsetof(MetronomeSnapshot, reserved) == 76, "MetronomeSnapshot.reserved");

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t mn_abi_version(void) WS_NOEXCEPT;

/*
 * The live metronome. One instance per process: mn_create makes it,
 * mn_destroy ends it. Every call below takes the metronome's family lock for
 * its whole duration (calls are serialised; any host thread may make them);
 * with no instance they return ws_not_created (-2), checked before pointer
 * arguments. The instance runs a watchdog thread that reopens the playback
 * device when the system stops or reroutes it (the same device, else the
 * default) and restarts a playing click without count-in. The audio back
 * end runs the render callback on its own thread. Commands (start, stop,
 * pause, tempo, ...) reach the click at the start of the next audio block.
 */

/* Creates the metronome (stopped, 120 BPM, no device open yet).
 * Returns 0; ws_already_created (-1); ws_backend_init_failed (-10) if no
 * audio back end could be initialised (nothing kept). Ends the process (see
 * common.h) if memory or the watchdog thread cannot be had. */
WS_API int32_t mn_create(void) WS_NOEXCEPT;

/* Stops the watchdog, closes the device, frees the instance. Blocks up to
 * about 50 ms for the watchdog. Returns 0, or -2. */
WS_API int32_t mn_destroy(void) WS_NOEXCEPT;

/* Stores a range-checked copy of `config` for later starts and hands it to
 * the click: at once when stopped, otherwise from the next bar line. Opens
 * and starts nothing. Returns 0, -2, or -3 for NULL. */
WS_API int32_t mn_configure(const MetronomeConfig* config) WS_NOEXCEPT;

/* Starts the click from its count-in with a range-checked copy of `config`,
 * opening the playback device first if it is not open. `device_id` (an
 * id_text from mn_get_device; NULL keeps the previous choice, "" means the
 * default) is stored; while the device is already open a new id is only
 * used at the next reopen (mn_select_device or after a device event).
 * Blocks while the device opens. Returns 0, -2, -3 for a NULL config, or the
 * device error (-11, -12, -13, -15) with nothing started. */
WS_API int32_t mn_start(const MetronomeConfig* config, const char* device_id) WS_NOEXCEPT;

/* Fades the click out over one audio block. The device stays open and plays
 * silence. Returns 0 or -2. */
WS_API int32_t mn_stop(void) WS_NOEXCEPT;

/* Pauses the click, keeping its position; mn_resume continues from there.
 * Return 0 or -2. */
WS_API int32_t mn_pause(void) WS_NOEXCEPT;
WS_API int32_t mn_resume(void) WS_NOEXCEPT;

/* Sets the tempo in millionths of a beat per minute (120 BPM = 120000000),
 * clamped to 10..400 BPM; cancels a running ramp. Returns 0 or -2. */
WS_API int32_t mn_set_tempo(int64_t tempo_ubpm) WS_NOEXCEPT;

/* Sets the output gain, clamped to 0..1 (NaN gives 0). Returns 0 or -2. */
WS_API int32_t mn_set_master_gain(double gain) WS_NOEXCEPT;

/* Chooses the playback device (NULL or "": the default; an unknown or
 * malformed id also gives the default, see MetronomeStatus.used_default)
 * and reopens it now; a playing click restarts on it without count-in.
 * Blocks while the device opens. Returns 0, -2, or the device error. */
WS_API int32_t mn_select_device(const char* device_id) WS_NOEXCEPT;

/* Lists the playback devices afresh. Returns their number (0 or more), -2,
 * or a device error (previous list kept). */
WS_API int32_t mn_refresh_devices(void) WS_NOEXCEPT;

/* Copies the index-th playback device of the last refresh. Query
 * convention: 1 if copied, 0 if the index is negative or past the end; -2;
 * -3 for NULL. */
WS_API int32_t mn_get_device(int32_t index, DeviceRecord* out) WS_NOEXCEPT;

/* Copies the device status. Returns 0, -2, or -3 for NULL. */
WS_API int32_t mn_get_status(MetronomeStatus* out) WS_NOEXCEPT;

/* Copies the latest position snapshot without blocking the audio thread.
 * The position is that of the last block rendered, about 100 ms ahead of
 * what is heard (see Latency above). Query convention: 1 if copied; 0 if no audio block has played yet or no
 * consistent copy could be taken (try again); -2; -3 for NULL. */
WS_API int32_t mn_get_snapshot(MetronomeSnapshot* out) WS_NOEXCEPT;

/* Renders the click track that starting the metronome with `config` would
 * play, from its first frame, without any device: for previews and for
 * exporting a click track to a file.
 *
 *   config       range-checked as described at MetronomeConfig (a copy is
 *                checked; the host's record is not modified)
 *   sample_rate  Hz; NaN, infinite, below 8000 or above 384000 renders at 48000
 *   frames       frames to render, at least 1
 *   channels     1..8; every channel carries the same click
 *   out          frames x channels 32-bit floats, interleaved by frame, all
 *                overwritten; samples lie within -1..1
 *
 * Returns `frames`, the number of frames written; ws_invalid_argument (-3)
 * for a NULL config or out, frames below 1 or channels outside 1..8, with
 * out untouched.
 * The same configuration, rate and length always give the same samples.
 * Takes no lock and needs no metronome instance: it renders with a private
 * metronome of its own, so it may run on any number of threads at once and
 * beside a playing metronome, which it does not affect. It allocates
 * the click sounds for this rate (under one megabyte) and frees them before
 * returning (memory that cannot be had ends the process, see common.h); the
 * time it takes grows with `frames`. */
WS_API int64_t mn_render_offline(const MetronomeConfig* config, double sample_rate, int64_t frames,
                                 int32_t channels, float* out) WS_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
