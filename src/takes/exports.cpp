// The ta_ exports: argument checks, loading, the core, the record. No lock
// and no instance; everything is owned by the call. Nothing may throw across
// the C boundary: running out of memory (the only failure that throws)
// becomes -14 here, like a file that cannot be read.
#include <cstring>
#include <new>
#include <vector>

#include "takes/analysis.hpp"
#include "takes/cleaning.hpp"
#include "frame/platform.hpp"
#include "takes/take_file.hpp"
#include "woodshed/takes.h"

namespace {

using ws::takes::load_take_wav;
using ws::takes::skip_frames;

struct Loaded {
    std::vector<float> reference, take;
    uint32_t rate = 0;
};

// The take whole, then the reference from the offset at the take's rate.
// One file given as both is refused before anything is read: cleaning a
// backing with itself would leave it near silent.
int32_t load_pair(const char* reference_path, const char* take_path, int32_t offset_ms, Loaded& l) {
    if (ws::platform::same_file(reference_path, take_path)) return ws_invalid_argument;
    uint32_t take_rate = 0, reference_rate = 0;
    if (!load_take_wav(take_path, 0, l.take, take_rate)) return ws_unsupported_format;
    if (!load_take_wav(reference_path, skip_frames(take_rate, offset_ms), l.reference,
                       reference_rate)) {
        return ws_unsupported_format;
    }
    if (take_rate != reference_rate) return ws_unsupported_format;
    l.rate = take_rate;
    return ws_ok;
}

int32_t analyze(const char* reference_path, const char* take_path, int32_t offset_ms,
                int32_t min_ms, int32_t max_ms, TakeAnalysis* out) {
    Loaded l;
    const int32_t rc = load_pair(reference_path, take_path, offset_ms, l);
    if (rc != ws_ok) return rc;
    const auto found = ws::takes::find_delay(
        l.reference.data(), l.reference.size(), l.take.data(), l.take.size(), l.rate,
        ws::takes::ms_to_frames(l.rate, min_ms), ws::takes::ms_to_frames(l.rate, max_ms));
    out->score = found.score;
    out->delay_frames = found.delay_frames;
    out->sample_rate = l.rate;
    out->valid = found.valid ? 1u : 0u;
    return ws_ok;
}

// Far beyond any take's length, and small enough that the lag arithmetic
// of the cleaning cannot overflow.
constexpr int64_t kMaxDelayFrames = int64_t{1} << 40;

// What the cleaning found, for a host that shows it (all zero on failure).
void describe(const ws::takes::CleanReport& report, uint32_t rate, TakeCleaningDetail* detail,
              TakeCleaningStretch* stretches, int32_t capacity) {
    if (detail == nullptr) return;
    detail->room_seconds = static_cast<double>(report.taps) / rate;
    detail->rt60_seconds = report.rt60;
    detail->drift_ppm = report.drift * 1e6;
    detail->stretches = static_cast<int32_t>(report.stretches.size());
    for (int32_t i = 0; i < capacity && i < detail->stretches; ++i) {
        const ws::takes::Stretch& st = report.stretches[static_cast<size_t>(i)];
        stretches[i] = TakeCleaningStretch{st.start, st.end, st.delay, st.cleaned ? 1 : 0, 0};
    }
}

int32_t clean(const char* reference_path, const char* take_path, int32_t offset_ms,
              int64_t delay_frames, TakeCleaning* out, TakeCleaningDetail* detail,
              TakeCleaningStretch* stretches, int32_t capacity) {
    if (delay_frames < -kMaxDelayFrames || delay_frames > kMaxDelayFrames) return ws_invalid_argument;
    ws::takes::restore_stranded_backup(take_path);
    Loaded l;
    const int32_t rc = load_pair(reference_path, take_path, offset_ms, l);
    if (rc != ws_ok) return rc;
    ws::takes::CleanReport report;
    if (!ws::takes::clean_take(l.reference.data(), l.reference.size(), l.take, delay_frames,
                               static_cast<double>(l.rate), report)) {
        return ws_invalid_argument;
    }
    std::vector<float>().swap(l.reference);  // the writer needs only the take
    out->delay_frames = report.stretches.empty() ? delay_frames : report.stretches.front().delay;
    out->sample_rate = l.rate;
    describe(report, l.rate, detail, stretches, capacity);
    if (!report.changed) return ws_ok;  // nothing helped: the take stays as it is on disk
    if (!ws::takes::store_take_wav_safely(take_path, l.take.data(), l.take.size(),
                                          static_cast<int32_t>(l.rate))) {
        return ws_unsupported_format;
    }
    out->reduction_db = report.reduction_db;
    out->cleaned = 1;
    return ws_ok;
}

}  // namespace

extern "C" WS_API int32_t ta_analyze(const char* reference_path, const char* take_path,
                                     int32_t reference_offset_ms, int32_t min_delay_ms,
                                     int32_t max_delay_ms, TakeAnalysis* out) WS_NOEXCEPT {
    if (out == nullptr) return ws_invalid_argument;
    std::memset(out, 0, sizeof *out);
    if (reference_path == nullptr || take_path == nullptr) return ws_invalid_argument;
    try {
        const int32_t rc = analyze(reference_path, take_path, reference_offset_ms, min_delay_ms,
                                   max_delay_ms, out);
        if (rc != ws_ok) std::memset(out, 0, sizeof *out);
        return rc;
    } catch (...) {
        std::memset(out, 0, sizeof *out);
        return ws_unsupported_format;
    }
}

namespace {
int32_t clean_guarded(const char* reference_path, const char* take_path, int32_t reference_offset_ms,
                      int64_t delay_frames, TakeCleaning* out, TakeCleaningDetail* detail,
                      TakeCleaningStretch* stretches, int32_t capacity) noexcept {
    const auto clear = [&] {
        std::memset(out, 0, sizeof *out);
        if (detail != nullptr) std::memset(detail, 0, sizeof *detail);
    };
    clear();
    if (reference_path == nullptr || take_path == nullptr) return ws_invalid_argument;
    try {
        const int32_t rc = clean(reference_path, take_path, reference_offset_ms, delay_frames, out,
                                 detail, stretches, capacity);
        if (rc != ws_ok) clear();
        return rc;
    } catch (...) {
        clear();
        return ws_unsupported_format;
    }
}
}  // namespace

extern "C" WS_API int32_t ta_clean(const char* reference_path, const char* take_path,
                                   int32_t reference_offset_ms, int64_t delay_frames,
                                   TakeCleaning* out) WS_NOEXCEPT {
    if (out == nullptr) return ws_invalid_argument;
    return clean_guarded(reference_path, take_path, reference_offset_ms, delay_frames, out, nullptr,
                         nullptr, 0);
}

extern "C" WS_API int32_t ta_clean_detailed(const char* reference_path, const char* take_path,
                                            int32_t reference_offset_ms, int64_t delay_frames,
                                            TakeCleaning* out, TakeCleaningDetail* detail,
                                            TakeCleaningStretch* stretches,
                                            int32_t capacity) WS_NOEXCEPT {
    if (out == nullptr || detail == nullptr || capacity < 0 || (stretches == nullptr && capacity > 0)) {
        if (out != nullptr) std::memset(out, 0, sizeof *out);
        return ws_invalid_argument;
    }
    return clean_guarded(reference_path, take_path, reference_offset_ms, delay_frames, out, detail,
                         stretches, capacity);
}
