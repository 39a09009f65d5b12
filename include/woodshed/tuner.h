/*
 * Woodshed tuner (tn_): pitch analysis of a buffer the host already holds.
 *
 * The analysis runs a normalised autocorrelation pitch detector over
 * overlapping windows of band-limited (58 Hz to 1800 Hz) mono audio, guards
 * against octave jumps, names the nearest (or a fixed) note and smooths the
 * deviation in cents. Rates above 55 kHz are decimated first.
 */
#ifndef WOODSHED_TUNER_H
#define WOODSHED_TUNER_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Ranges of the TunerConfig fields, ends included, and the defaults that
 * replace a value outside them (also the settings of a NULL record). */
#define TN_A4_HZ_MIN 400.0
#define TN_A4_HZ_MAX 480.0
#define TN_A4_HZ_DEFAULT 440.0
#define TN_LOWEST_HZ_MIN 20.0
#define TN_LOWEST_HZ_MAX 200.0
#define TN_LOWEST_HZ_DEFAULT 55.0
#define TN_HIGHEST_HZ_MIN 200.0
#define TN_HIGHEST_HZ_MAX 5000.0
#define TN_HIGHEST_HZ_DEFAULT 1200.0
#define TN_TOLERANCE_CENTS_MIN 0.5
#define TN_TOLERANCE_CENTS_MAX 25.0
#define TN_TOLERANCE_CENTS_DEFAULT 5.0
#define TN_FIXED_NOTE_MIN 0
#define TN_FIXED_NOTE_MAX 127
#define TN_FIXED_NOTE_DEFAULT (-1) /* chromatic */

/* Tuner settings (40 bytes). Out-of-range or non-finite fields are replaced,
 * never rejected:
 *   a4_hz            400..480   else 440
 *   lowest_hz         20..200   else 55
 *   highest_hz       200..5000  else 1200
 *   tolerance_cents  0.5..25    else 5
 *   fixed_note         0..127   else -1 (-1: chromatic, follow the nearest note)
 *   slow_smoothing   1          any other value becomes 0
 * Then, if 1.5 x lowest_hz >= highest_hz, both go back to 55 and 1200.
 * Note that an all-zero record fixes the target on MIDI note 0. */
typedef struct TunerConfig {
    double a4_hz;            /* reference frequency of A4 */
    double lowest_hz;        /* lowest frequency to detect */
    double highest_hz;       /* highest frequency to detect */
    double tolerance_cents;  /* |cents| at or below this reads as in tune */
    int32_t fixed_note;      /* MIDI note to tune against, or -1 for chromatic */
    int32_t slow_smoothing;  /* 1 halves the smoothing factor (steadier, slower) */
} TunerConfig;

WS_STATIC_ASSERT(sizeof(TunerConfig) == 40, "TunerConfig is 40 bytes");
WS_STATIC_ASSERT(offsetof(TunerConfig, a4_hz) == 0, "TunerConfig.a4_hz");
WS_STATIC_ASSERT(offsetof(TunerConfig, lowest_hz) == 8, "TunerConfig.lowest_hz");
WS_STATIC_ASSERT(offsetof(TunerConfig, highest_hz) == 16, "TunerConfig.highest_hz");
WS_STATIC_ASSERT(offsetof(TunerConfig, tolerance_cents) == 24, "TunerConfig.tolerance_cents");
WS_STATIC_ASSERT(offsetof(TunerConfig, fixed_note) == 32, "TunerConfig.fixed_note");
WS_STATIC_ASSERT(offsetof(TunerConfig, slow_smoothing) == 36, "TunerConfig.slow_smoothing");

/* TunerReading.state */
typedef enum tn_reading_state {
    tn_state_silent = 0,   /* no note since the start, or after 7 frames without pitch */
    tn_state_holding = 1,  /* previous note kept: short dropout, or a new note's first frame */
    tn_state_pitched = 2,  /* pitched, |cents| above the tolerance */
    tn_state_in_tune = 3   /* pitched, |cents| within the tolerance */
} tn_reading_state;

/* One analysis frame's result (88 bytes). */
typedef struct TunerReading {
    uint64_t time_us;      /* end of the analysed window, microseconds since the start of the input */
    uint64_t frame_count;  /* analysis frames so far, this one included */
    double frequency_hz;   /* detected fundamental; 0 when none */
    double target_hz;      /* frequency of the target note at the configured A4 */
    double cents;          /* smoothed deviation from the target note */
    double clarity;        /* periodicity (normalised autocorrelation) at the chosen period, about
                              0.54..1 when pitched: the shortest period within 90% of the best wins */
    double peak;           /* largest |sample| since the previous frame, at most 1 */
    double level_db;       /* RMS since the previous frame in dBFS, at least -120 */
    double strobe_phase;   /* accumulated phase of detected against target, radians */
    int32_t note;          /* MIDI note of the target; -1 when none */
    int32_t octave;        /* note / 12 - 1 (A4 = MIDI 69 gives 4); 0 when note is -1 */
    uint32_t state;        /* tn_reading_state */
    uint32_t clipped;      /* 1 if any sample since the previous frame reached |0.999| */
} TunerReading;

WS_STATIC_ASSERT(sizeof(TunerReading) == 88, "TunerReading is 88 bytes");
WS_STATIC_ASSERT(offsetof(TunerReading, time_us) == 0, "TunerReading.time_us");
WS_STATIC_ASSERT(offsetof(TunerReading, frame_count) == 8, "TunerReading.frame_count");
WS_STATIC_ASSERT(offsetof(TunerReading, frequency_hz) == 16, "TunerReading.frequency_hz");
WS_STATIC_ASSERT(offsetof(TunerReading, target_hz) == 24, "TunerReading.target_hz");
WS_STATIC_ASSERT(offsetof(TunerReading, cents) == 32, "TunerReading.cents");
WS_STATIC_ASSERT(offsetof(TunerReading, clarity) == 40, "TunerReading.clarity");
WS_STATIC_ASSERT(offsetof(TunerReading, peak) == 48, "TunerReading.peak");
WS_STATIC_ASSERT(offsetof(TunerReading, level_db) == 56, "TunerReading.level_db");
WS_STATIC_ASSERT(offsetof(TunerReading, strobe_phase) == 64, "TunerReading.strobe_phase");
WS_STATIC_ASSERT(offsetof(TunerReading, note) == 72, "TunerReading.note");
WS_STATIC_ASSERT(offsetof(TunerReading, octave) == 76, "TunerReading.octave");
WS_STATIC_ASSERT(offsetof(TunerReading, state) == 80, "TunerReading.state");
WS_STATIC_ASSERT(offsetof(TunerReading, clipped) == 84, "TunerReading.clipped");

/* TunerStatus.state */
typedef enum tn_engine_state {
    tn_engine_stopped = 0,
    tn_engine_running = 1,
    tn_engine_reopening = 2, /* the device was lost; the engine is opening it (or the default) again */
    tn_engine_failed = 3     /* the last open failed; see result and backend_result */
} tn_engine_state;

/* The live engine's status (32 bytes), copied by tn_engine_get_status. */
typedef struct TunerStatus {
    uint64_t change_count;   /* 1 after create; +1 at every status change */
    uint32_t state;          /* tn_engine_state */
    int32_t result;          /* ws_result of the last failure; 0 after a successful start */
    int32_t backend_result;  /* the audio back end's raw result behind `result` */
    uint32_t sample_rate;    /* the open device's rate in Hz; 0 when stopped */
    uint32_t device_channels;/* the device's native capture channels (mixed to mono); 0 when stopped */
    uint32_t default_used;   /* 1 if the default input was opened because the id text was empty,
                                malformed or not among the listed devices */
} TunerStatus;

WS_STATIC_ASSERT(sizeof(TunerStatus) == 32, "TunerStatus is 32 bytes");
WS_STATIC_ASSERT(offsetof(TunerStatus, change_count) == 0, "TunerStatus.change_count");
WS_STATIC_ASSERT(offsetof(TunerStatus, state) == 8, "TunerStatus.state");
WS_STATIC_ASSERT(offsetof(TunerStatus, result) == 12, "TunerStatus.result");
WS_STATIC_ASSERT(offsetof(TunerStatus, backend_result) == 16, "TunerStatus.backend_result");
WS_STATIC_ASSERT(offsetof(TunerStatus, sample_rate) == 20, "TunerStatus.sample_rate");
WS_STATIC_ASSERT(offsetof(TunerStatus, device_channels) == 24, "TunerStatus.device_channels");
WS_STATIC_ASSERT(offsetof(TunerStatus, default_used) == 28, "TunerStatus.default_used");

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t tn_abi_version(void) WS_NOEXCEPT;

/* Returns the fixed capability mask 31. No lock; any thread. */
WS_API int32_t tn_capabilities(void) WS_NOEXCEPT;

/*
 * The live tuner engine. One instance per process: tn_engine_create makes it,
 * tn_engine_destroy ends it. Every tn_engine_ call takes the tuner's family
 * lock for its whole duration (calls are serialised; any host thread may make
 * them); with no instance they return ws_not_created (-2), checked before
 * any pointer argument. The engine starts one worker thread at create; the
 * audio back end runs the capture callback on its own thread.
 *
 * Latency: samples arrive in 10 ms periods (the back end may hold up to
 * 80 ms more while the process is not scheduled, rather than drop them) and
 * the worker looks every 3 ms, so the engine adds 10 to 13 ms to the
 * analysis window itself; a note that starts cleanly reads in tune about
 * 40 ms later on a sound server.
 */

/* Creates the engine with `config` (NULL: defaults) and its audio context.
 * Returns 0; ws_already_created (-1) if an engine exists (it is untouched);
 * ws_backend_init_failed (-10) if no audio back end could be initialised
 * (nothing is kept; create may be tried again). Ends the process (see
 * common.h) if memory or the worker thread cannot be had. */
WS_API int32_t tn_engine_create(const TunerConfig* config) WS_NOEXCEPT;

/* Stops capture, joins the worker, closes the device and frees the engine.
 * Blocks until the worker has ended. Returns 0, or -2 if there was none. */
WS_API int32_t tn_engine_destroy(void) WS_NOEXCEPT;

/* Applies new settings to the running analysis. A changed frequency range
 * restarts the analysis; other changes apply from the next frame.
 * Returns 0; -2; ws_invalid_argument (-3) for NULL. */
WS_API int32_t tn_engine_configure(const TunerConfig* config) WS_NOEXCEPT;

/* Opens and starts the capture device named by `device_id` (an id_text from
 * tn_engine_get_device; upper-case hex accepted). NULL, the empty text, a
 * malformed text or one that names no listed input opens the default input
 * (TunerStatus.default_used = 1). A running device is closed first and the
 * published reading is forgotten. Blocks while the device opens.
 * Returns 0, -2, or the device error
 * (-11 no device, -12 busy, -13 access denied, -14 format, -15 other), which
 * TunerStatus also records with the back end's raw value. */
WS_API int32_t tn_engine_start(const char* device_id) WS_NOEXCEPT;

/* Closes the device. The last reading stays readable. Stopping a stopped
 * engine succeeds (and still counts as a status change). Returns 0 or -2. */
WS_API int32_t tn_engine_stop(void) WS_NOEXCEPT;

/* Copies the status record. Returns 0, -2, or -3 for NULL. */
WS_API int32_t tn_engine_get_status(TunerStatus* out) WS_NOEXCEPT;

/* Copies the latest reading. Note the query convention: returns 1 if a
 * reading was copied, 0 if none has been published since the device opened
 * (or no consistent copy could be taken; try again), -2, or -3 for NULL.
 * Never blocks the analysis. */
WS_API int32_t tn_engine_get_reading(TunerReading* out) WS_NOEXCEPT;

/* Copies the index-th input of the list made by the last refresh (or start).
 * Query convention: 1 if copied, 0 if the index is negative or past the end;
 * -2; -3 for NULL (after the instance check). */
WS_API int32_t tn_engine_get_device(int32_t index, DeviceRecord* out) WS_NOEXCEPT;

/* Lists the capture devices afresh. Returns their number (0 or more), -2,
 * or a device error; on failure the previous list stays. */
WS_API int32_t tn_engine_refresh_devices(void) WS_NOEXCEPT;

/* Analyses a buffer the host holds and reports the reading the live tuner
 * would show after hearing it (not an average: the state after the last
 * complete analysis window, with note tracking and smoothing applied along
 * the way; time_us counts from the start of the buffer).
 *
 *   config       may be NULL for the defaults (440, 55, 1200, 5, -1, 0)
 *   samples      32-bit floats, interleaved by frame; multichannel input is
 *                mixed to mono. NaN and infinities count as silence, values
 *                beyond +-4 are clamped.
 *   frames       frame count, at least 1
 *   channels     1..32
 *   sample_rate  Hz; non-finite or outside 8000..384000 is analysed as 48000
 *   out          filled only when the call returns 1
 *
 * Returns 1 if a reading was produced and copied to *out; 0 if the buffer was
 * shorter than one analysis window (out untouched); ws_invalid_argument (-3)
 * for a NULL samples or out pointer, frames < 1 or channels outside 1..32.
 * Takes no lock, needs no engine, keeps nothing between calls: safe from any
 * number of threads at once. Allocates its working buffers per call; if
 * that memory cannot be had, the process ends (see common.h). */
WS_API int32_t tn_offline_process(const TunerConfig* config, const float* samples, int32_t frames,
                                  int32_t channels, double sample_rate, TunerReading* out) WS_NOEXCEPT;

/* The same analysis as tn_offline_process, returning every analysis frame's
 * reading: a pitch track, one reading per hop (half a window: 1024 input
 * frames at 44.1 or 48 kHz with the default lowest frequency), in order.
 * The last entry equals tn_offline_process's reading bit for bit.
 *
 *   config, samples, frames, channels, sample_rate   as for tn_offline_process
 *   track    room for *count readings; may be NULL when *count is 0
 *   count    in: the room in track; out: the readings written. With 0 in,
 *            nothing is analysed and *count becomes the number of readings
 *            the buffer gives (the size to allocate). When the room is
 *            smaller, the first *count readings are written and the
 *            analysis stops there.
 *
 * Returns 1 if the buffer gives at least one reading; 0 if it is shorter
 * than one analysis window (*count becomes 0, track untouched); -3 for a
 * NULL samples or count pointer, *count < 0, a NULL track with *count > 0,
 * frames < 1 or channels outside 1..32 (nothing written). Cost: one
 * tn_offline_process over the same buffer. Re-entrant like it. */
WS_API int32_t tn_offline_track(const TunerConfig* config, const float* samples, int32_t frames,
                                int32_t channels, double sample_rate, TunerReading* track,
                                int32_t* count) WS_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
