/*
 * Woodshed take tools (ta_): delay analysis and leak removal on take WAV files.
 *
 * A take is what was recorded while a reference (the backing track) played.
 * ta_analyze finds the delay at which the reference appears in the take;
 * ta_clean removes the reference that leaked into the take's microphone and
 * rewrites the take file in place.
 *
 * Files: 16-bit integer PCM WAV, mono or stereo (stereo is averaged to mono),
 * also in the extensible format with the integer PCM sub-format. Both files
 * must have the same sample rate; nothing is resampled. Paths are UTF-8.
 *
 * Threads: these calls take no lock and keep no state or instance; any
 * thread may call them at any time, also several at once on different
 * files. They block for the length of the work (file reading, analysis,
 * and for ta_clean the rewrite, which retries for up to about 0.6 s when
 * another program holds a file). Two calls rewriting the same take at
 * the same time are not guarded against.
 */
#ifndef WOODSHED_TAKES_H
#define WOODSHED_TAKES_H

#include "woodshed/common.h"
#include "woodshed/tuner.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t ta_abi_version(void) WS_NOEXCEPT;

/* Result of ta_analyze (32 bytes). All zero when the call failed; on success
 * sample_rate is always filled in, and score, delay_frames and valid are 0
 * when no analysis could be made (signals under a quarter second, an empty
 * delay range, a silent reference). */
typedef struct TakeAnalysis {
    double score;          /* peak-to-background score of the coarse delay search; >= 8 counts as clear */
    uint64_t reserved;     /* zero */
    int64_t delay_frames;  /* take frame at which the reference's first used frame is heard */
    uint32_t sample_rate;  /* common sample rate of the two files, Hz */
    uint32_t valid;        /* 1 if score >= 8 and delay_frames lies in the requested range, else 0 */
} TakeAnalysis;

WS_STATIC_ASSERT(sizeof(TakeAnalysis) == 32, "TakeAnalysis is 32 bytes");
WS_STATIC_ASSERT(offsetof(TakeAnalysis, score) == 0, "TakeAnalysis.score");
WS_STATIC_ASSERT(offsetof(TakeAnalysis, reserved) == 8, "TakeAnalysis.reserved");
WS_STATIC_ASSERT(offsetof(TakeAnalysis, delay_frames) == 16, "TakeAnalysis.delay_frames");
WS_STATIC_ASSERT(offsetof(TakeAnalysis, sample_rate) == 24, "TakeAnalysis.sample_rate");
WS_STATIC_ASSERT(offsetof(TakeAnalysis, valid) == 28, "TakeAnalysis.valid");

/* Finds where the reference lies in the take.
 *   reference_path       the backing track's WAV file (UTF-8), never written
 *   take_path            the take's WAV file (UTF-8), never written
 *   reference_offset_ms  where in the reference the take began (the start
 *                        position the recording was made from); that much
 *                        of the reference is skipped. Below 1: none.
 *   min_delay_ms,
 *   max_delay_ms         the range of delays to search, in ms at the files'
 *                        rate; negative values mean the take leads.
 *   out                  the result; cleared first (unless null)
 * Returns 0 when the files were read, also when no analysis could be made
 * (then valid is 0); -3 (ws_invalid_argument) if out is null (nothing
 * written), a path is null or both paths name one file (also through a
 * link); -14 (ws_unsupported_format) if a file cannot be read, is not a
 * regular file (a FIFO or device is refused at once, never waited on) or
 * is not a supported WAV, if the rates differ, or if memory for the files
 * runs out. No lock; any thread. */
WS_API int32_t ta_analyze(const char* reference_path, const char* take_path,
                          int32_t reference_offset_ms, int32_t min_delay_ms,
                          int32_t max_delay_ms, TakeAnalysis* out) WS_NOEXCEPT;

/* Result of ta_clean (32 bytes). All zero unless the call succeeded; on
 * success delay_frames and sample_rate are always filled in. */
typedef struct TakeCleaning {
    uint64_t reserved;     /* zero */
    double reduction_db;   /* energy removed from the take: 10 log10(before / after) over the
                              stretches changed; 0 when nothing was removed */
    int64_t delay_frames;  /* the round trip found in the take's first stretch (the search
                              starts at the delay passed in) */
    uint32_t sample_rate;  /* common sample rate of the two files, Hz */
    uint32_t cleaned;      /* 1 if the take was rewritten, 0 if nothing helped (file untouched) */
} TakeCleaning;

WS_STATIC_ASSERT(sizeof(TakeCleaning) == 32, "TakeCleaning is 32 bytes");
WS_STATIC_ASSERT(offsetof(TakeCleaning, reserved) == 0, "TakeCleaning.reserved");
WS_STATIC_ASSERT(offsetof(TakeCleaning, reduction_db) == 8, "TakeCleaning.reduction_db");
WS_STATIC_ASSERT(offsetof(TakeCleaning, delay_frames) == 16, "TakeCleaning.delay_frames");
WS_STATIC_ASSERT(offsetof(TakeCleaning, sample_rate) == 24, "TakeCleaning.sample_rate");
WS_STATIC_ASSERT(offsetof(TakeCleaning, cleaned) == 28, "TakeCleaning.cleaned");

/* Removes the leaked reference from the take and rewrites the take file.
 *   reference_path       the backing track's WAV file (UTF-8), never written
 *   take_path            the take's WAV file (UTF-8), replaced on success
 *   reference_offset_ms  as for ta_analyze
 *   delay_frames         the delay ta_analyze found (its delay_frames): where
 *                        the search for the round trip starts. The round trip
 *                        is measured along the take within 16384 frames of it;
 *                        it may jump (any number of times), and each stretch
 *                        is cleaned with its own alignment. The room is
 *                        modelled from 46 ms before the delay to 0.8 s after.
 *   out                  the result; cleared first (unless null)
 * The take is rewritten as mono 16-bit PCM at its rate (a stereo take
 * becomes the mean of its channels). A clock drift of up to 400 ppm between
 * the recordings is found and corrected in takes of 393216 frames or more.
 * The new take is written to take_path + ".tawtmp" (created anew: a link or
 * another user's file at that name makes the call fail), synced to disk,
 * given the old take's permissions, and renamed over the old take in one
 * step: at every moment the take is on disk, old or new. A take that is a
 * link is replaced at its target. A take missing while take_path +
 * ".tawbak" exists (left by an older version interrupted mid-replacement)
 * is first restored from it; that file is never deleted.
 * Subtraction is kept only where it lowers the take's energy; when it helps
 * nowhere (a silent reference, a take without leak) the call returns 0 with
 * cleaned 0 and reduction_db 0, and the take file is not rewritten.
 * Returns 0 on success; -3 (ws_invalid_argument)
 * if out is null (nothing written), a path is null, both paths name one
 * file (also through a link), delay_frames lies outside +-2^40, the take is
 * shorter than 8192 frames or the reference is empty after the offset; -14
 * (ws_unsupported_format) if a file cannot be read, is not a regular file
 * or is not a supported WAV, if the rates differ, if memory runs out, or
 * if the take cannot be replaced (for example a read-only take, or one
 * another program keeps open, for longer than the retries): the take file
 * is then unchanged.
 * No lock; any thread. */
WS_API int32_t ta_clean(const char* reference_path, const char* take_path,
                        int32_t reference_offset_ms, int64_t delay_frames, TakeCleaning* out) WS_NOEXCEPT;

/* What ta_clean_detailed found (32 bytes). All zero unless the call succeeded. */
typedef struct TakeCleaningDetail {
    double room_seconds;   /* 0: length of the room response the leak filter covered */
    double rt60_seconds;   /* 8: the room's decay (RT60) the estimate assumed */
    double drift_ppm;      /* 16: clock drift corrected (positive: the take runs long); 0 for none */
    int32_t stretches;     /* 24: stretches of one round trip found (more than the room given
                                   when the array was short) */
    int32_t reserved;      /* 28: zero */
} TakeCleaningDetail;

WS_STATIC_ASSERT(sizeof(TakeCleaningDetail) == 32, "TakeCleaningDetail is 32 bytes");
WS_STATIC_ASSERT(offsetof(TakeCleaningDetail, room_seconds) == 0, "TakeCleaningDetail.room_seconds");
WS_STATIC_ASSERT(offsetof(TakeCleaningDetail, rt60_seconds) == 8, "TakeCleaningDetail.rt60_seconds");
WS_STATIC_ASSERT(offsetof(TakeCleaningDetail, drift_ppm) == 16, "TakeCleaningDetail.drift_ppm");
WS_STATIC_ASSERT(offsetof(TakeCleaningDetail, stretches) == 24, "TakeCleaningDetail.stretches");
WS_STATIC_ASSERT(offsetof(TakeCleaningDetail, reserved) == 28, "TakeCleaningDetail.reserved");

/* One stretch of the take heard through one round trip (32 bytes): the
 * round trip jumps between stretches (a sound server that fell behind). */
typedef struct TakeCleaningStretch {
    int64_t start_frame;   /* 0: first take frame */
    int64_t end_frame;     /* 8: one past the last */
    int64_t delay_frames;  /* 16: the round trip in this stretch */
    int32_t cleaned;       /* 24: 1 if subtraction lowered it, 0 if it was left alone */
    int32_t reserved;      /* 28: zero */
} TakeCleaningStretch;

WS_STATIC_ASSERT(sizeof(TakeCleaningStretch) == 32, "TakeCleaningStretch is 32 bytes");
WS_STATIC_ASSERT(offsetof(TakeCleaningStretch, start_frame) == 0, "TakeCleaningStretch.start_frame");
WS_STATIC_ASSERT(offsetof(TakeCleaningStretch, end_frame) == 8, "TakeCleaningStretch.end_frame");
WS_STATIC_ASSERT(offsetof(TakeCleaningStretch, delay_frames) == 16, "TakeCleaningStretch.delay_frames");
WS_STATIC_ASSERT(offsetof(TakeCleaningStretch, cleaned) == 24, "TakeCleaningStretch.cleaned");
WS_STATIC_ASSERT(offsetof(TakeCleaningStretch, reserved) == 28, "TakeCleaningStretch.reserved");

/* ta_clean, and what it found: the room length and decay it used, the
 * drift it corrected, and up to `capacity` stretches of one round trip
 * each (stretches may be NULL when capacity is 0; detail->stretches says
 * how many there were). The take is handled exactly as by ta_clean, with
 * the same results; -3 also for a NULL detail, capacity < 0, or NULL
 * stretches with capacity > 0 (nothing written but the cleared records).
 * No lock; any thread. */
WS_API int32_t ta_clean_detailed(const char* reference_path, const char* take_path,
                                 int32_t reference_offset_ms, int64_t delay_frames,
                                 TakeCleaning* out, TakeCleaningDetail* detail,
                                 TakeCleaningStretch* stretches, int32_t capacity) WS_NOEXCEPT;

/*
 * The practice report: the notes of a take, each placed against a beat grid
 * (was it in time?) and measured in cents (was it in tune?).
 *
 * Onsets are found in the audio (a rise of spectral flux, placed to the
 * millisecond by the rise of the short-time energy); notes are the tuner's
 * pitch track over the same audio (tn_offline_track's analysis): a note is
 * an onset under a run of pitched readings on one note. An onset without a
 * pitch (a knock, a breath) and a pitch without an onset make no note.
 */

/* The beat grid (24 bytes). Out-of-range values are replaced:
 *   tempo_ubpm        10000000..400000000 (10..400 BPM), millionths of a
 *                     BPM as the metronome takes them; else 120000000
 *   first_beat_frame  the take frame of beat 1 of bar 1; any value (the grid
 *                     extends both ways)
 *   beats_per_bar     1..32, else 4
 *   subdivision       grid steps per beat, 1..16 (2: eighths), else 1 */
typedef struct TakeReportGrid {
    int64_t tempo_ubpm;
    int64_t first_beat_frame;
    int32_t beats_per_bar;
    int32_t subdivision;
} TakeReportGrid;

WS_STATIC_ASSERT(sizeof(TakeReportGrid) == 24, "TakeReportGrid is 24 bytes");
WS_STATIC_ASSERT(offsetof(TakeReportGrid, tempo_ubpm) == 0, "TakeReportGrid.tempo_ubpm");
WS_STATIC_ASSERT(offsetof(TakeReportGrid, first_beat_frame) == 8, "TakeReportGrid.first_beat_frame");
WS_STATIC_ASSERT(offsetof(TakeReportGrid, beats_per_bar) == 16, "TakeReportGrid.beats_per_bar");
WS_STATIC_ASSERT(offsetof(TakeReportGrid, subdivision) == 20, "TakeReportGrid.subdivision");

/* One note played (80 bytes). */
typedef struct TakeReportNote {
    int64_t onset_frame;      /* take frame where the note begins */
    int64_t duration_frames;  /* until the next note, or until its energy fell 20 dB below its
                                 loudest 10 ms */
    int64_t grid_frame;       /* the nearest grid position, rounded to a frame */
    double deviation_ms;      /* onset - grid position in ms: negative = early, positive = late */
    double frequency_hz;      /* median detected frequency over the held part */
    double cents;             /* median deviation from the note (equal temperament at the tuner's
                                 A4): negative = flat */
    double cents_spread;      /* interquartile range of the deviation over the held part */
    int32_t note;             /* MIDI note (69 = A4) */
    int32_t bar;              /* bar of the grid position, 1 = the bar of first_beat_frame
                                 (0 and below before it) */
    int32_t beat;             /* beat within the bar, 1..beats_per_bar */
    int32_t step;             /* grid step within the beat, 0..subdivision-1 */
    char name[8];             /* note name with sharps and octave ("C#4"), NUL-padded */
} TakeReportNote;

WS_STATIC_ASSERT(sizeof(TakeReportNote) == 80, "TakeReportNote is 80 bytes");
WS_STATIC_ASSERT(offsetof(TakeReportNote, onset_frame) == 0, "TakeReportNote.onset_frame");
WS_STATIC_ASSERT(offsetof(TakeReportNote, duration_frames) == 8, "TakeReportNote.duration_frames");
WS_STATIC_ASSERT(offsetof(TakeReportNote, grid_frame) == 16, "TakeReportNote.grid_frame");
WS_STATIC_ASSERT(offsetof(TakeReportNote, deviation_ms) == 24, "TakeReportNote.deviation_ms");
WS_STATIC_ASSERT(offsetof(TakeReportNote, frequency_hz) == 32, "TakeReportNote.frequency_hz");
WS_STATIC_ASSERT(offsetof(TakeReportNote, cents) == 40, "TakeReportNote.cents");
WS_STATIC_ASSERT(offsetof(TakeReportNote, cents_spread) == 48, "TakeReportNote.cents_spread");
WS_STATIC_ASSERT(offsetof(TakeReportNote, note) == 56, "TakeReportNote.note");
WS_STATIC_ASSERT(offsetof(TakeReportNote, bar) == 60, "TakeReportNote.bar");
WS_STATIC_ASSERT(offsetof(TakeReportNote, beat) == 64, "TakeReportNote.beat");
WS_STATIC_ASSERT(offsetof(TakeReportNote, step) == 68, "TakeReportNote.step");
WS_STATIC_ASSERT(offsetof(TakeReportNote, name) == 72, "TakeReportNote.name");

/* The take's figures (48 bytes); all zero when no note was found. */
typedef struct TakeReportSummary {
    double mean_abs_deviation_ms;  /* mean |deviation_ms| over the notes */
    double share_within_20ms;      /* share of notes with |deviation_ms| <= 20, 0..1 */
    double mean_abs_cents;         /* mean |cents| over the notes */
    double share_within_10_cents;  /* share of notes with |cents| <= 10, 0..1 */
    int64_t frames;                /* length of the take */
    uint32_t sample_rate;          /* its rate, Hz */
    int32_t notes;                 /* notes found (also those beyond the room given) */
} TakeReportSummary;

WS_STATIC_ASSERT(sizeof(TakeReportSummary) == 48, "TakeReportSummary is 48 bytes");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, mean_abs_deviation_ms) == 0, "TakeReportSummary.mean_abs_deviation_ms");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, share_within_20ms) == 8, "TakeReportSummary.share_within_20ms");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, mean_abs_cents) == 16, "TakeReportSummary.mean_abs_cents");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, share_within_10_cents) == 24, "TakeReportSummary.share_within_10_cents");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, frames) == 32, "TakeReportSummary.frames");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, sample_rate) == 40, "TakeReportSummary.sample_rate");
WS_STATIC_ASSERT(offsetof(TakeReportSummary, notes) == 44, "TakeReportSummary.notes");

/* Reports on the take at take_path (a WAV as ta_analyze reads it; cleaned or
 * not).
 *   tuner    the tuner settings (NULL: defaults); A4 and the frequency range
 *            apply, the fixed note does not (notes are always the nearest)
 *   grid     the beat grid, required
 *   notes    room for *count notes, in order of onset; may be NULL when
 *            *count is 0
 *   count    in: the room in notes; out: the notes written (summary->notes
 *            has how many were found)
 *   summary  the figures over all notes found (may be NULL)
 * Returns 0 (also when no note was found); -3 (ws_invalid_argument) for a
 * NULL path, grid or count, *count < 0, or NULL notes with *count > 0
 * (nothing written); -14 (ws_unsupported_format) if the file cannot be read
 * or memory runs out (*count is then 0 and summary cleared). No lock; any
 * thread; the time is about that of tn_offline_track over the take. */
WS_API int32_t ta_report(const char* take_path, const TunerConfig* tuner,
                         const TakeReportGrid* grid, TakeReportNote* notes, int32_t* count,
                         TakeReportSummary* summary) WS_NOEXCEPT;

/* The same for mono samples the host holds (frames >= 1 at sample_rate Hz,
 * 8000..384000; NaN counts as silence). -3 also for NULL samples, frames < 1
 * or a rate outside that range; -14 only when memory runs out. */
WS_API int32_t ta_report_buffer(const float* samples, int64_t frames, int32_t sample_rate,
                                const TunerConfig* tuner, const TakeReportGrid* grid,
                                TakeReportNote* notes, int32_t* count, TakeReportSummary* summary) WS_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
