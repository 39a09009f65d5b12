// ta_report and ta_report_buffer: argument checks, the grid's replacements,
// the core, the records. Like the other ta_ exports: no lock, no instance,
// nothing thrown across the C boundary (running out of memory becomes -14).
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "takes/report.hpp"
#include "takes/take_file.hpp"
#include "woodshed/takes.h"

namespace {

ws::takes::ReportGrid grid_from(const TakeReportGrid& g) {
    ws::takes::ReportGrid out;
    const bool tempo_ok = g.tempo_ubpm >= 10000000 && g.tempo_ubpm <= 400000000;
    out.tempo_bpm = static_cast<double>(tempo_ok ? g.tempo_ubpm : 120000000) / 1e6;
    out.first_beat_frame = static_cast<double>(g.first_beat_frame);
    out.beats_per_bar = g.beats_per_bar >= 1 && g.beats_per_bar <= 32 ? g.beats_per_bar : 4;
    out.subdivision = g.subdivision >= 1 && g.subdivision <= 16 ? g.subdivision : 1;
    return out;
}

// Floor division: grid steps before the first beat belong to bar 0 and below.
int64_t floor_div(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

void fill_note(const ws::takes::ReportNote& n, const ws::takes::ReportGrid& g, TakeReportNote& out) {
    std::memset(&out, 0, sizeof out);
    out.onset_frame = n.onset_frame;
    out.duration_frames = n.duration_frames;
    out.grid_frame = n.grid_frame;
    out.deviation_ms = n.deviation_ms;
    out.frequency_hz = n.frequency_hz;
    out.cents = n.cents;
    out.cents_spread = n.cents_spread;
    out.note = n.note;
    const int64_t beat = floor_div(n.grid_index, g.subdivision);
    out.step = static_cast<int32_t>(n.grid_index - beat * g.subdivision);
    const int64_t bar = floor_div(beat, g.beats_per_bar);
    out.beat = static_cast<int32_t>(beat - bar * g.beats_per_bar) + 1;
    out.bar = static_cast<int32_t>(std::clamp<int64_t>(bar + 1, INT32_MIN, INT32_MAX));
    static constexpr const char* kNames[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                               "F#", "G",  "G#", "A",  "A#", "B"};
    if (n.note >= 0 && n.note <= 127) {
        std::snprintf(out.name, sizeof out.name, "%s%d", kNames[n.note % 12], n.note / 12 - 1);
    }
}

int32_t report(std::vector<float>& x, uint32_t rate, const TunerConfig* tuner,
               const TakeReportGrid* grid, TakeReportNote* notes, int32_t* count,
               TakeReportSummary* summary) {
    for (float& v : x) v = std::isfinite(v) ? std::clamp(v, -4.0f, 4.0f) : 0.0f;
    const ws::takes::ReportGrid g = grid_from(*grid);
    const auto found = ws::takes::report_notes(x.data(), x.size(), rate, tuner, g);
    const size_t room = std::min(found.size(), static_cast<size_t>(*count));
    for (size_t i = 0; i < room; ++i) fill_note(found[i], g, notes[i]);
    *count = static_cast<int32_t>(room);
    if (summary != nullptr) {
        const auto s = ws::takes::summarise(found);
        summary->mean_abs_deviation_ms = s.mean_abs_deviation_ms;
        summary->share_within_20ms = s.share_within_20ms;
        summary->mean_abs_cents = s.mean_abs_cents;
        summary->share_within_10_cents = s.share_within_10_cents;
        summary->frames = static_cast<int64_t>(x.size());
        summary->sample_rate = rate;
        summary->notes = static_cast<int32_t>(std::min<size_t>(found.size(), INT32_MAX));
    }
    return ws_ok;
}

bool bad_room(const TakeReportNote* notes, const int32_t* count) {
    return count == nullptr || *count < 0 || (notes == nullptr && *count > 0);
}

// Every way out after the checks leaves *count and summary consistent.
template <class F>
int32_t guarded(int32_t* count, TakeReportSummary* summary, F&& f) noexcept {
    if (summary != nullptr) std::memset(summary, 0, sizeof *summary);
    try {
        const int32_t rc = f();
        if (rc != ws_ok) {
            *count = 0;
            if (summary != nullptr) std::memset(summary, 0, sizeof *summary);
        }
        return rc;
    } catch (...) {
        *count = 0;
        if (summary != nullptr) std::memset(summary, 0, sizeof *summary);
        return ws_unsupported_format;
    }
}

}  // namespace

extern "C" WS_API int32_t ta_report(const char* take_path, const TunerConfig* tuner,
                                    const TakeReportGrid* grid, TakeReportNote* notes,
                                    int32_t* count, TakeReportSummary* summary) WS_NOEXCEPT {
    if (take_path == nullptr || grid == nullptr || bad_room(notes, count)) return ws_invalid_argument;
    return guarded(count, summary, [&] {
        std::vector<float> x;
        uint32_t rate = 0;
        if (!ws::takes::load_take_wav(take_path, 0, x, rate)) return int32_t{ws_unsupported_format};
        return report(x, rate, tuner, grid, notes, count, summary);
    });
}

extern "C" WS_API int32_t ta_report_buffer(const float* samples, int64_t frames,
                                           int32_t sample_rate, const TunerConfig* tuner,
                                           const TakeReportGrid* grid, TakeReportNote* notes,
                                           int32_t* count, TakeReportSummary* summary) WS_NOEXCEPT {
    if (samples == nullptr || frames < 1 || sample_rate < 8000 || sample_rate > 384000 ||
        grid == nullptr || bad_room(notes, count)) {
        return ws_invalid_argument;
    }
    return guarded(count, summary, [&] {
        std::vector<float> x(samples, samples + frames);
        return report(x, static_cast<uint32_t>(sample_rate), tuner, grid, notes, count, summary);
    });
}
