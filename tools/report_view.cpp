// The practice report's table and picture, shared by `woodshed report` and
// the demo.
#include "report_view.hpp"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"

namespace cli {

MonoTake read_mono_take(const std::string& path) {
    AudioReader reader(path, 8000, 384000, 48000);
    std::vector<float> interleaved;
    while (reader.read(interleaved, 65536) > 0) {
    }
    MonoTake t;
    t.rate = reader.sample_rate();
    const size_t ch = reader.channels();
    t.mono.resize(interleaved.size() / ch);
    for (size_t i = 0; i < t.mono.size(); ++i) {
        float sum = 0.0f;
        for (size_t c = 0; c < ch; ++c) sum += interleaved[i * ch + c];
        t.mono[i] = sum / static_cast<float>(ch);
    }
    if (t.mono.empty()) input_error(path, "no audio in the file");
    return t;
}

PracticeReport make_report(const MonoTake& take, const TunerConfig& tuner, const TakeReportGrid& grid) {
    const int64_t frames = static_cast<int64_t>(take.mono.size());
    const auto rate = static_cast<int32_t>(take.rate);
    PracticeReport r;
    int32_t count = 0;
    int32_t rc = ta_report_buffer(take.mono.data(), frames, rate, &tuner, &grid, nullptr, &count, &r.summary);
    r.notes.resize(static_cast<size_t>(std::max(r.summary.notes, 0)));
    count = r.summary.notes;
    if (rc == ws_ok && count > 0) {
        rc = ta_report_buffer(take.mono.data(), frames, rate, &tuner, &grid, r.notes.data(), &count, &r.summary);
    }
    if (rc != ws_ok) throw Failure("the report failed with code " + std::to_string(rc));
    r.notes.resize(static_cast<size_t>(count));
    return r;
}

void print_report(const PracticeReport& report, double rate, bool compact, const char* indent) {
    const std::vector<TakeReportNote>& notes = report.notes;
    const TakeReportSummary& s = report.summary;
    if (compact) {
        if (!notes.empty()) std::printf("%sonset s  timing ms  note   cents\n", indent);
        for (const TakeReportNote& n : notes) {
            std::printf("%s%7.3f  %+9.1f  %-5s %+6.1f\n", indent, static_cast<double>(n.onset_frame) / rate,
                        n.deviation_ms, n.name, n.cents);
        }
    } else {
        std::printf("%s  #  bar.beat  onset s   timing ms  note   cents  spread  length s\n", indent);
        for (size_t i = 0; i < notes.size(); ++i) {
            const TakeReportNote& n = notes[i];
            char pos[24];
            if (n.step > 0) {
                std::snprintf(pos, sizeof pos, "%d.%d+%d", n.bar, n.beat, n.step);
            } else {
                std::snprintf(pos, sizeof pos, "%d.%d", n.bar, n.beat);
            }
            std::printf("%s%3d  %-8s %8.3f  %+9.1f  %-5s %+6.1f  %6.1f  %8.3f\n", indent, static_cast<int>(i + 1),
                        pos, static_cast<double>(n.onset_frame) / rate, n.deviation_ms, n.name, n.cents,
                        n.cents_spread, static_cast<double>(n.duration_frames) / rate);
        }
    }
    if (s.notes == 0) {
        std::printf("%sno notes found\n", indent);
        return;
    }
    if (!compact) std::printf("%snotes: %d\n", indent, s.notes);
    std::printf("%stiming: mean |deviation| %.1f ms, %.0f %% within +-20 ms\n", indent, s.mean_abs_deviation_ms,
                100.0 * s.share_within_20ms);
    std::printf("%stuning: mean |deviation| %.1f cents, %.0f %% within +-10 cents\n", indent, s.mean_abs_cents,
                100.0 * s.share_within_10_cents);
}

namespace {

// Green within the tolerance a musician aims for, amber near it, red beyond.
const char* shade(double v, double good, double fair) {
    const double a = std::fabs(v);
    return a <= good ? "#2e9d4f" : a <= fair ? "#e0a020" : "#d13b3b";
}

std::vector<TunerReading> pitch_track(const MonoTake& take, const TunerConfig& tuner) {
    const auto frames = static_cast<int32_t>(std::min<size_t>(take.mono.size(), INT32_MAX));
    int32_t readings = 0;
    tn_offline_track(&tuner, take.mono.data(), frames, 1, take.rate, nullptr, &readings);
    std::vector<TunerReading> track(static_cast<size_t>(std::max(readings, 0)));
    if (readings > 0) tn_offline_track(&tuner, take.mono.data(), frames, 1, take.rate, track.data(), &readings);
    track.resize(static_cast<size_t>(std::max(readings, 0)));
    return track;
}

}  // namespace

void write_report_svg(const std::string& file, const MonoTake& take, const PracticeReport& report,
                      const TunerConfig& tuner, const TakeReportGrid& grid) {
    const std::vector<TakeReportNote>& notes = report.notes;
    const std::vector<TunerReading> track = pitch_track(take, tuner);
    const double rate = take.rate;
    const double seconds = static_cast<double>(take.mono.size()) / rate;
    // Lanes for the notes played and one either side; a stretch of empty
    // lanes between them is left out (a thick line marks the cut), so one
    // stray low note does not squeeze the melody into a corner.
    std::vector<int> shown;  // highest first
    for (const auto& n : notes) {
        for (int k = n.note + 1; k >= n.note - 1; --k) shown.push_back(k);
    }
    if (notes.empty()) {
        for (int k = 69; k >= 57; --k) shown.push_back(k);
    }
    std::sort(shown.begin(), shown.end(), std::greater<>());
    shown.erase(std::unique(shown.begin(), shown.end()), shown.end());
    const auto lane_of = [&](int note) {
        const auto it = std::find(shown.begin(), shown.end(), note);
        return it == shown.end() ? -1 : static_cast<int>(it - shown.begin());
    };
    const double px_s = std::clamp(1600.0 / seconds, 80.0, 300.0);
    const double left = 56, strip = 90, top = 40 + strip, lane = 26;
    const double width = left + seconds * px_s + 20;
    const double height = top + static_cast<double>(shown.size()) * lane + 40;
    const auto x_of = [&](double frame) { return left + frame / rate * px_s; };
    const auto y_of = [&](int note) { return top + (lane_of(note) + 0.5) * lane; };

    std::string s;
    char buf[512];
    const auto add = [&](const char* fmt, auto... args) {
        std::snprintf(buf, sizeof buf, fmt, args...);
        s += buf;
    };
    add("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
        "font-family=\"sans-serif\" font-size=\"11\">\n", width, height);
    add("<rect width=\"100%%\" height=\"100%%\" fill=\"#ffffff\"/>\n");
    static constexpr bool kBlack[12] = {0, 1, 0, 1, 0, 0, 1, 0, 1, 0, 1, 0};
    static constexpr const char* kNames[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                               "F#", "G",  "G#", "A",  "A#", "B"};
    for (size_t i = 0; i < shown.size(); ++i) {
        const int n = shown[i];
        add("<rect x=\"%.0f\" y=\"%.1f\" width=\"%.0f\" height=\"%.1f\" fill=\"%s\"/>\n", left,
            y_of(n) - lane / 2, width - left, lane, kBlack[((n % 12) + 12) % 12] ? "#eef0f4" : "#f9fafc");
        add("<text x=\"6\" y=\"%.1f\" fill=\"#555\">%s%d</text>\n", y_of(n) + 4,
            kNames[((n % 12) + 12) % 12], n / 12 - 1);
        if (i > 0 && shown[i - 1] != n + 1) {
            add("<line x1=\"0\" y1=\"%.1f\" x2=\"%.0f\" y2=\"%.1f\" stroke=\"#8a93a3\" stroke-width=\"3\" "
                "stroke-dasharray=\"8,4\"/>\n", y_of(n) - lane / 2, width, y_of(n) - lane / 2);
        }
    }
    // The grid: bars dark, beats light, steps dotted.
    const double step = 60.0 * rate * 1e6 / static_cast<double>(grid.tempo_ubpm) / grid.subdivision;
    const double first = static_cast<double>(grid.first_beat_frame);
    const long long k0 = static_cast<long long>(std::ceil(-first / step));
    for (long long k = k0; first + static_cast<double>(k) * step <= static_cast<double>(take.mono.size()); ++k) {
        const double x = x_of(first + static_cast<double>(k) * step);
        const long long beat = k >= 0 ? k / grid.subdivision : -((-k + grid.subdivision - 1) / grid.subdivision);
        const bool on_beat = k % grid.subdivision == 0;
        const bool bar = on_beat && beat % grid.beats_per_bar == 0;
        add("<line x1=\"%.1f\" y1=\"%.0f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"%s\"%s/>\n",
            x, 40.0, x, height - 30, bar ? "#7a8290" : "#c4c9d2", bar ? "1.5" : "1",
            on_beat ? "" : " stroke-dasharray=\"2,3\"");
        if (bar) add("<text x=\"%.1f\" y=\"%.0f\" fill=\"#555\">%lld</text>\n", x + 3, 34.0, beat / grid.beats_per_bar + 1);
    }
    // Timing strip above the lanes: at each note's grid position a bar up
    // (late) or down (early), 60 ms to the strip's half height, its ms
    // written beside it; a label that would overlap the one before on its
    // side moves one line outwards.
    double last_label[2] = {-1e9, -1e9};
    int label_row[2] = {0, 0};
    const double mid = 40 + strip / 2 - 4;
    add("<line x1=\"%.0f\" y1=\"%.1f\" x2=\"%.0f\" y2=\"%.1f\" stroke=\"#999\"/>\n", left, mid,
        width - 20, mid);
    add("<text x=\"6\" y=\"%.1f\" fill=\"#555\">late</text><text x=\"6\" y=\"%.1f\" "
        "fill=\"#555\">early</text>\n", mid - 14, mid + 22);
    for (const auto& n : notes) {
        const double xg = x_of(static_cast<double>(n.grid_frame));
        const double h = std::clamp(n.deviation_ms / 50.0, -1.0, 1.0) * (strip / 2 - 8);
        add("<rect x=\"%.1f\" y=\"%.1f\" width=\"8\" height=\"%.1f\" fill=\"%s\"/>\n", xg - 4,
            h > 0 ? mid - h : mid, std::max(1.0, std::fabs(h)), shade(n.deviation_ms, 20, 40));
        const int side = h > 0 ? 0 : 1;
        label_row[side] = xg - last_label[side] < 30 ? (label_row[side] + 1) % 3 : 0;
        last_label[side] = xg;
        const double row = 11.0 * label_row[side];
        add("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\" font-size=\"10\">%+.0f</text>\n", xg + 5,
            h > 0 ? mid - 3 - row : mid + 11 + row, std::fabs(n.deviation_ms) < 0.5 ? 0.0 : n.deviation_ms);
    }
    // Notes: a bar on the lane from onset to end, shaded by its cents, the
    // cents written on it, and a tick down from the strip at the onset.
    for (const auto& n : notes) {
        const double x0 = x_of(static_cast<double>(n.onset_frame));
        const double x1 = x_of(static_cast<double>(n.onset_frame + n.duration_frames));
        const double y = y_of(n.note);
        add("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" rx=\"3\" fill=\"%s\" "
            "fill-opacity=\"0.35\"/>\n", x0, y - lane / 2 + 2, std::max(2.0, x1 - x0), lane - 4,
            shade(n.cents, 10, 25));
        add("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#fff\"/>\n", x0, y,
            std::max(x0 + 2.0, x1), y);
        add("<text x=\"%.1f\" y=\"%.1f\" fill=\"#222\" font-size=\"10\">%+.0f c</text>\n", x0 + 3,
            y - lane / 2 + 12, std::fabs(n.cents) < 0.5 ? 0.0 : n.cents);
        add("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#222\" stroke-width=\"1.5\"/>\n",
            x0, y - lane / 2, x0, y + lane / 2);
    }
    // The pitch curve: every pitched reading at its window's middle (a
    // reading's time is its window's end; windows are two hops long).
    const uint64_t hop_us = track.size() > 1 ? track[1].time_us - track[0].time_us : 0;
    std::string path;
    double last_x = -1e9;
    for (const TunerReading& r : track) {
        if (r.state < tn_state_pitched || !(r.frequency_hz > 0) || !(r.target_hz > 0)) {
            last_x = -1e9;
            continue;
        }
        // On its nearest note's lane, magnified: the lane's edges are +-50 cents.
        const double semis = r.note + 12.0 * std::log2(r.frequency_hz / r.target_hz);
        const double nearest = std::round(semis);
        if (lane_of(static_cast<int>(nearest)) < 0) {
            last_x = -1e9;
            continue;
        }
        const double y = y_of(static_cast<int>(nearest)) - (semis - nearest) * lane;
        const double t_mid = static_cast<double>(r.time_us - std::min(r.time_us, hop_us)) * 1e-6;
        const double x = left + t_mid * px_s;
        std::snprintf(buf, sizeof buf, "%s%.1f,%.1f ", x - last_x > 40 ? "M" : "L", x, y);
        path += buf;
        last_x = x;
    }
    s += "<path d=\"" + path + "\" fill=\"none\" stroke=\"#1f4fbf\" stroke-width=\"1.6\"/>\n";
    add("<text x=\"%.0f\" y=\"%.0f\" fill=\"#444\">blue: the pitch, each lane spanning its note "
        "+-50 cents (white line: in tune); notes shaded by cents: green within 10, amber within "
        "25, red beyond. Top: each note's onset against its beat, green within 20 ms.</text>\n",
        left, height - 12);
    s += "</svg>\n";
    FILE* f = open_file(file, "wb");
    if (f == nullptr) output_error(file, "cannot be written");
    const bool ok = std::fwrite(s.data(), 1, s.size(), f) == s.size();
    if (std::fclose(f) != 0 || !ok) {
        remove_file(file);
        output_error(file, "cannot be written");
    }
}


}  // namespace cli
