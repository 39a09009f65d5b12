// The backing track: a 16-bit WAV file read whole and converted once to
// what the device plays (its own rate, stereo, 32-bit float, interleaved),
// so the audio callback only ever copies frames.
//
// Only a narrow subset is accepted: 16 bits per sample (whatever the format
// tag says), 1 or 2 channels, at least 8000 Hz. Other rates go through the
// library's band-limited resampler. Host thread only; the track is replaced
// only while no device is open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ws::recorder {

inline constexpr uint32_t kRecorderRate = 44100;
// Raw file sizes outside this window are refused before anything is read:
// below it nothing playable fits (a bare 44-byte header is refused on
// purpose), above it lies more than an hour of CD-quality stereo, which no
// backing track needs.
inline constexpr int64_t kMinSourceBytes = 45;
inline constexpr int64_t kMaxSourceBytes = 700LL * 1048576;
inline constexpr uint32_t kMinSourceRate = 8000;
// Above this no audio file is made; a header claiming more is damaged, and
// converting from it would need a filter longer than the track.
inline constexpr uint32_t kMaxSourceRate = 768000;
// The converted track may take at most this much memory: a small file at a
// low rate expands many times over at the device rate.
inline constexpr uint64_t kMaxTrackBytes = uint64_t{2} << 30;

enum class LoadResult { ok, unreadable, too_large };

struct SourceTrack {
    std::vector<float> samples;  // 2 * frames floats, left then right
    int64_t frames = 0;

    void clear() {
        samples.clear();
        samples.shrink_to_fit();
        frames = 0;
    }
};

// Reads the WAV file at `utf8_path` into `track`, converted to `rate`. The
// track is emptied first, so a failure leaves none. An empty or null path
// asks for no track: ok with an empty track. unreadable for a file that
// cannot be opened or is not a regular file (a FIFO is never waited on),
// lies outside the size window or is not in the subset,
// and when memory runs out; too_large when the converted track would pass
// kMaxTrackBytes (refused before anything is allocated for it).
LoadResult load_source_track(const char* utf8_path, uint32_t rate, SourceTrack& track);

// The same conversion from bytes in memory (the file's content after the
// size test): for the fuzz target and for tests of malformed files.
LoadResult decode_source_wav(const uint8_t* bytes, size_t size, uint32_t rate, SourceTrack& track);

}  // namespace ws::recorder
