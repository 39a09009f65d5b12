// Feeds arbitrary bytes to the backing-track reader as the content of a WAV
// file. Besides the sanitizers' checks it aborts when a result breaks what
// the reader promises: no track after a failure; after success two floats
// per frame, each in [-1, 1), both channels equal for a mono file, and no
// more frames than the bytes hold at the lowest accepted rate.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cmath>
#include <cstring>

#include "recorder/source_track.hpp"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_backing_reader: broken invariant: %s\n", what);
    std::abort();
}

// Channel count of the last complete "fmt " chunk, walked the way the
// reader walks (only needed to tell mono from stereo).
uint32_t channels_of(const uint8_t* data, size_t size) {
    uint32_t channels = 0;
    uint64_t off = 12;
    while (off + 8 <= size) {
        uint32_t chunk_size;
        std::memcpy(&chunk_size, data + off + 4, 4);  // little-endian hosts only, like the fuzzer
        if (std::memcmp(data + off, "fmt ", 4) == 0 && off + 24 <= size) channels = data[off + 10] | (data[off + 11] << 8);
        off += 8 + uint64_t{chunk_size} + (chunk_size & 1u);
    }
    return channels;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ws::recorder::SourceTrack track;
    track.samples.assign(6, 0.5f);  // a failure must leave nothing of this
    track.frames = 3;
    const bool ok = ws::recorder::decode_source_wav(data, size, 44100, track) == ws::recorder::LoadResult::ok;
    if (!ok) {
        check(track.frames == 0 && track.samples.empty(), "a failed load left a track");
        return 0;
    }
    check(track.frames >= 0, "negative length");
    check(track.samples.size() == 2 * static_cast<size_t>(track.frames), "two floats per frame");
    // 8000 Hz is the lowest rate: at most 44100/8000 output frames per input frame, plus rounding.
    check(static_cast<double>(track.frames) <= static_cast<double>(size / 2) * 5.5125 + 1.0, "too many frames");
    const bool mono = channels_of(data, size) == 1;
    for (size_t j = 0; j < track.samples.size(); j += 2) {
        const float l = track.samples[j], r = track.samples[j + 1];
        // The band-limited conversion may overshoot full scale a little, never far.
        check(std::fabs(l) < 2.0f && std::fabs(r) < 2.0f, "sample out of range");
        if (mono) check(l == r, "mono differs between channels");
    }
    return 0;
}
