// The take tools' file layer: a 16-bit PCM WAV file (mono or stereo) read
// whole into one mono float stream, and a file replaced by a new mono 16-bit
// WAV without ever leaving its owner with neither the old nor the new one.
//
// Both report only success or failure; the exports turn failure into
// ws_unsupported_format. No state, no lock: safe from several threads at
// once on different paths.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "frame/platform.hpp"

namespace ws::takes {

// Frames of `ms` milliseconds at `rate`: trunc(rate * ms / 1000) in signed
// 64-bit arithmetic. For skips, below 1 ms counts as 0 (clamp_negative).
int64_t ms_to_frames(uint32_t rate, int32_t ms);
uint64_t skip_frames(uint32_t rate, int32_t ms);

// Reads the file at `path` (UTF-8), drops its first `skip` frames and leaves
// the rest in `out` as one float a frame (mono: value / 32768, stereo: the
// sum of both channels / 65536) and its rate in `rate`. Accepts integer PCM
// (also as the extensible format with sub-format 1), 16 bits, 1 or 2
// channels, rate >= 1, with a "data" chunk. A skip at or past the end is
// success with an empty stream. Only regular files are read (a FIFO or a
// device is refused at once, never waited on). May throw std::bad_alloc.
bool load_take_wav(const char* path, uint64_t skip, std::vector<float>& out, uint32_t& rate);

// The same from bytes in memory, through the same chunk walk: for the fuzz
// target and the tests of malformed files, which need no disk.
bool load_take_wav_bytes(const uint8_t* bytes, size_t size, uint64_t skip, std::vector<float>& out,
                         uint32_t& rate);

inline constexpr const char* kTempSuffix = ".tawtmp";
inline constexpr const char* kBackupSuffix = ".tawbak";
inline constexpr int kAttempts = 10;
inline constexpr int kRetrySleepMs = 20;

// Writes `count` samples as a mono 16-bit WAV at `rate` in place of the file
// at `path` (UTF-8) without a moment at which that name is missing: the new
// file is created exclusively as path + ".tawtmp" (a stale temporary of an
// earlier call is removed first; a link or anybody else's file there is a
// failure), written, flushed and synced, given the old file's mode (and
// owner and group where permitted), then renamed over the old file in one
// atomic step, and the folder synced. A link at `path` is replaced at its
// target. An existing file that cannot be opened for writing (read-only, or
// held by another program throughout about 0.2 s of retries) is not
// replaced, nor is anything but a regular file. On failure the old file is
// unchanged and the temporary is gone. Each sample x becomes
// lrint(clamp(x * 32767)), with NaN and everything at or above full scale
// giving 32767 and the low end clamped at -32768. Never throws.
bool store_take_wav_safely(const char* path, const float* samples, uint64_t count, int32_t rate,
                           const platform::ReplaceSteps& steps = platform::system_replace_steps());

// A take left only as path + ".tawbak" (by an older version of the
// replacement, interrupted between its two renames) is put back under its
// name, but only while that name is free. True when it was restored. The
// backup is never deleted.
bool restore_stranded_backup(const char* path);

// The 16-bit value the writer stores for x.
int16_t to_pcm16(float x);

}  // namespace ws::takes
