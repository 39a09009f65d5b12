/*
 * Woodshed duplex recorder (sd_): plays a backing track and records a take
 * aligned with it.
 *
 * One duplex device runs at its own rate (whatever the sound server or the
 * system mixer runs at: 44.1, 48, 96 kHz ...) with 10 ms periods, so nothing
 * converts the audio out of the library's sight. In each period one
 * callback plays the next frames of the backing track (from a 16-bit WAV
 * file, converted once to the device rate, stereo, when the take starts)
 * and captures the same period's frames of the chosen input (mono); the
 * writer converts the input to 44100 Hz. Both conversions use one
 * band-limited resampler (stop band below -90 dB), so the path from the
 * backing to the take is a fixed linear filter. Take frame k was therefore
 * captured while backing frame start + k played; the take is aligned with
 * the track without measuring anything (the device's own round-trip latency
 * aside, which ta_analyze measures).
 *
 * If the round trip moves during a take (a sound server that falls behind
 * plays a gap or skips ahead), and the input hears the backing, the writer
 * finds the shift and repairs the take where it happened: it drops the
 * frames the glitch added or inserts silence for those it took away, so
 * the take stays at one delay from the backing. sd_repair_count says how
 * many repairs a take needed. Where the input does not hear the backing
 * (headphones), the take follows the frame counts.
 *
 * The take is written while it is recorded, by a writer thread, as a mono
 * 16-bit 44100 Hz WAV file with a 44-byte header. The header is rewritten
 * every 5 seconds of audio, so a take left behind by a crash is a playable
 * WAV file up to its last checkpoint; sd_stop patches the final size.
 *
 * Threads and locking: one instance per process (sd_create / sd_destroy).
 * Every sd_ call except sd_abi_version and sd_output_latency_ms takes the
 * recorder's family lock for its whole duration, so calls are serialised;
 * any host thread may make them. With no instance they return -2
 * (ws_not_created), checked before any pointer argument (sd_backend: -1).
 * sd_start and sd_stop block: they open or close the device and start or
 * join the writer thread. The library never calls the host: it polls
 * sd_get_state for progress.
 *
 * Latency: the device holds 40 ms of backing track ahead of what is heard
 * (on PulseAudio in 40 ms periods), so that a busy machine does not starve
 * it and move the round trip in mid-take. On a sound server the round trip
 * from backing to take is then about 150 ms, steady for the whole take;
 * ta_analyze measures it.
 *
 * Paths are UTF-8 text (converted to UTF-16 on Windows).
 */
#ifndef WOODSHED_RECORDER_H
#define WOODSHED_RECORDER_H

#include "woodshed/common.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The take's fixed sample rate, and the rate of every count the host sees. */
#define SD_SAMPLE_RATE 44100

/* Bytes of RecorderState that sd_get_state writes. */
#define SD_STATE_BYTES 36

/* A recording's progress, copied by sd_get_state.
 *
 * The library writes exactly its first 36 bytes (SD_STATE_BYTES). A C
 * compiler on a 64-bit platform pads the struct to 40 bytes because of its
 * 8-byte members; those 4 trailing bytes are never touched, so a host may
 * just as well declare the record packed at 36 bytes. */
typedef struct RecorderState {
    int64_t play_position;    /*  0: playback frame at 44100 Hz; keeps advancing past the end of
                                     the track and when no track is loaded */
    int64_t captured_frames;  /*  8: frames captured since the recording began, including frames
                                     the library had to drop (they are written as silence) */
    uint32_t sample_rate;     /* 16: always 44100 (the device's own rate: sd_device_rate) */
    uint32_t playback_done;   /* 20: 1 if a track is loaded and play_position has reached its
                                     end; 0 otherwise (also without a track) */
    double input_peak;        /* 24: decaying peak of |input sample|, full scale 1.0; falls by a
                                     factor 0.9 per 10 ms unless a louder sample arrives */
    uint32_t recording;       /* 32: 1 while a take is being recorded */
} RecorderState;

WS_STATIC_ASSERT(offsetof(RecorderState, play_position) == 0, "RecorderState.play_position");
WS_STATIC_ASSERT(offsetof(RecorderState, captured_frames) == 8, "RecorderState.captured_frames");
WS_STATIC_ASSERT(offsetof(RecorderState, sample_rate) == 16, "RecorderState.sample_rate");
WS_STATIC_ASSERT(offsetof(RecorderState, playback_done) == 20, "RecorderState.playback_done");
WS_STATIC_ASSERT(offsetof(RecorderState, input_peak) == 24, "RecorderState.input_peak");
WS_STATIC_ASSERT(offsetof(RecorderState, recording) == 32, "RecorderState.recording");
WS_STATIC_ASSERT(offsetof(RecorderState, recording) + 4 == SD_STATE_BYTES, "RecorderState: 36 bytes written");
WS_STATIC_ASSERT(sizeof(RecorderState) == 40 || sizeof(RecorderState) == SD_STATE_BYTES,
                 "RecorderState: 36 bytes, padded to 40 where int64_t is 8-byte aligned");

/* Returns 1, the interface version (WS_ABI_VERSION). No lock; any thread. */
WS_API int32_t sd_abi_version(void);

/* Creates the recorder and its audio context (the back ends in the audio
 * library's default order). Opens no device and starts no thread.
 * Returns 0; ws_already_created (-1) if an instance exists (it is
 * untouched); ws_backend_init_failed (-10) if no audio back end could be
 * initialised (nothing is kept; create may be tried again). */
WS_API int32_t sd_create(void);

/* Ends a recording that is still running exactly as sd_stop does (the take
 * is finished and complete), releases the audio context and frees the
 * instance. Blocks for about 40 ms when a device is open.
 * Returns 0, or -2 if there was no instance. */
WS_API int32_t sd_destroy(void);

/* The audio back end in use, as the audio library numbers them: 0 WASAPI,
 * 1 DirectSound, 2 WinMM, 3 Core Audio, 4 sndio, 5 audio(4), 6 OSS,
 * 7 PulseAudio, 8 ALSA, 9 JACK, 10 AAudio, 11 OpenSL|ES, 12 Web Audio,
 * 13 custom, 14 null. Returns -1 if there is no instance (not -2). */
WS_API int32_t sd_backend(void);

/* Looks up a capture device by its name and writes its id text (lower-case
 * hex, NUL-terminated) into buf, for sd_start. The devices are enumerated
 * afresh on every call; the name must match exactly (bytes, letter case,
 * whole string); the first match in enumeration order wins.
 *   name  NUL-terminated device name (UTF-8), as the back end reports it
 *   buf   receives the id text; untouched unless the call returns 1
 *   size  bytes available in buf, at least 8; an id of n significant
 *         bytes needs 2n + 1
 * Returns 1 if found and written (an all-zero id gives the empty text);
 * 0 if no capture device has that name or buf is too small for its id;
 * -3 if name or buf is NULL or size is below 8; -10 if the devices could
 * not be enumerated; -2 with no instance. Blocks while the back end
 * enumerates. */
WS_API int32_t sd_find_input_by_name(const char* name, char* buf, int32_t size);

/* Starts a take: loads the backing track, creates the take file, opens the
 * duplex device and starts it.
 *   source_path  backing track (UTF-8), may be NULL or empty for silence.
 *                A 16-bit PCM WAV file, mono or stereo, 8000 Hz or more,
 *                45 bytes to 700 MiB, and at most 2 GiB once converted
 *                to the device rate (stereo float); converted by the
 *                library's band-limited resampler. It is read whole into
 *                memory.
 *   take_path    the take file to create (UTF-8); an existing file of that
 *                name is overwritten, but only once the device has opened.
 *                Required; must not be a directory, FIFO or socket.
 *   input_id     id text of the input (from sd_find_input_by_name), or
 *                NULL / empty / malformed for the default input. A
 *                well-formed id is passed on unchecked: if that device no
 *                longer exists the open fails.
 *   start_ms     where in the track to begin, in ms (frame start_ms x 44100
 *                / 1000, truncated); 0 or negative: the beginning. A start
 *                past the end plays silence.
 * Output goes to the default playback device.
 * A take still running from an earlier sd_start is finished first (its
 * header made final; samples still queued for it are discarded, unlike
 * sd_stop, which writes them).
 * The device is opened first; the take file is created (or an existing one
 * truncated) only after it opened and the backing was converted, so a
 * failed start leaves an existing file at take_path exactly as it was and
 * creates none.
 * Returns 0 once the device runs; -2 with no instance; -3 if take_path is
 * NULL or the backing file cannot be read or is not in the format above;
 * -14 if the converted backing would pass 2 GiB (refused before it is
 * allocated); -10 without an audio context; -15 if take_path is a
 * directory, FIFO or socket or the take file cannot be created; -13 if the
 * operating system refused the device and -15 for any other device
 * failure. */
WS_API int32_t sd_start(const char* source_path, const char* take_path, const char* input_id,
                        int32_t start_ms);

/* Ends the take: silences the output for 40 ms, closes the device, joins
 * the writer, writes what is still queued, patches the header and closes
 * the take file. Blocks for about 40 ms or more.
 * Returns (as a signed 64-bit value) the take's length in ms, samples x
 * 1000 / 44100 truncated (0 or more); -2 if there is no instance, or if no
 * take has been started successfully since the last sd_stop. If the disk
 * filled up during the take, the length and the header count the samples
 * that really reached the file; the recording itself ran on until this
 * call. */
WS_API int64_t sd_stop(void);

/* Copies the recording's progress: writes the first 36 bytes of *out
 * (SD_STATE_BYTES; see RecorderState). Cheap; meant for polling, e.g. for a
 * level meter. Returns 0; -2 with no instance; -3 for NULL. */
WS_API int32_t sd_get_state(RecorderState* out);

/* Always -1.0, with or without an instance: the output latency is not
 * measured, and any negative value means "unknown". No lock; any thread. */
WS_API double sd_output_latency_ms(void);

/* The sample rate of the device of the running take, or of the last one
 * (the device's own rate, which the library converts to and from); 0
 * before the first take started. Returns -2 with no instance. */
WS_API int32_t sd_device_rate(void);

/* How many times the running take, or the last one, had its alignment
 * repaired because the round trip moved (0 or more); the count covers the
 * take up to what the writer has handled, and is final after sd_stop.
 * Returns -2 with no instance. */
WS_API int32_t sd_repair_count(void);

#ifdef __cplusplus
}
#endif

#endif
