#include "recorder/source_track.hpp"

#include <algorithm>
#include <stdexcept>

#include "frame/resampler.hpp"
#include "frame/wav_header.hpp"
#include "frame/wav_reader.hpp"

namespace ws::recorder {

namespace {

// The backing's rules: 16 bits whatever the format tag says, the basic 16
// bytes of a "fmt " chunk read whenever they are there.
constexpr frame::WavRules kRules{
    .min_rate = kMinSourceRate, .max_rate = kMaxSourceRate, .pcm_tag_only = false, .fmt_size_trusted = false};

LoadResult decode(frame::ByteSource& src, uint32_t rate, SourceTrack& track) {
    // Nothing shorter than the canonical header is taken, even where the
    // lenient "fmt " reading would find a format and an empty data chunk.
    frame::WavLayout w;
    if (src.size() < frame::kWavHeaderBytes || !frame::read_wav_layout(src, kRules, w) || rate == 0) {
        return LoadResult::unreadable;
    }

    const uint64_t n = w.frames;
    const uint64_t m = frame::Resampler::output_frames(n, w.rate, rate);
    if (m > kMaxTrackBytes / (2 * sizeof(float))) return LoadResult::too_large;
    try {
        track.samples.assign(static_cast<size_t>(2 * m), 0.0f);
        constexpr size_t kBlock = 8192;
        std::vector<int16_t> raw(2 * kBlock);
        std::vector<float> in(kBlock);
        std::vector<frame::Resampler> r;
        r.reserve(w.channels);
        for (uint32_t c = 0; c < w.channels; ++c) r.emplace_back(w.rate, rate);
        std::vector<float> out(std::max(r[0].max_output(kBlock), r[0].max_output(0)));
        uint64_t at[2] = {0, 0};  // output frame of each channel
        auto put = [&](uint32_t c, size_t k) {
            for (size_t i = 0; i < k && at[c] < m; ++i, ++at[c]) track.samples[2 * at[c] + c] = out[i];
        };
        // A read that comes up short (the file shrank) leaves the rest silent.
        for (uint64_t f = 0; f < n; f += kBlock) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(kBlock, n - f));
            const size_t k = frame::read_wav_frames(src, w, f, want, raw.data());
            for (uint32_t c = 0; c < w.channels; ++c) {
                for (size_t i = 0; i < k; ++i) in[i] = static_cast<float>(raw[i * w.channels + c] / 32768.0);
                put(c, r[c].process(in.data(), k, out.data()));
            }
            if (k < want) break;
        }
        for (uint32_t c = 0; c < w.channels; ++c) put(c, r[c].flush(out.data()));
    } catch (const std::exception&) {  // bad_alloc
        track.clear();
        return LoadResult::unreadable;
    }
    if (w.channels == 1) {
        for (uint64_t j = 0; j < m; ++j) track.samples[2 * j + 1] = track.samples[2 * j];
    }
    track.frames = static_cast<int64_t>(m);
    return LoadResult::ok;
}

}  // namespace

LoadResult decode_source_wav(const uint8_t* bytes, size_t size, uint32_t rate, SourceTrack& track) {
    track.clear();
    if (bytes == nullptr) return LoadResult::unreadable;
    frame::MemorySource src(bytes, size);
    return decode(src, rate, track);
}

LoadResult load_source_track(const char* utf8_path, uint32_t rate, SourceTrack& track) {
    track.clear();
    if (utf8_path == nullptr || *utf8_path == '\0') return LoadResult::ok;
    frame::FileSource src;
    if (!src.open(utf8_path)) return LoadResult::unreadable;
    const auto size = static_cast<int64_t>(src.size());
    if (size < kMinSourceBytes || size > kMaxSourceBytes) return LoadResult::unreadable;
    return decode(src, rate, track);
}

}  // namespace ws::recorder
