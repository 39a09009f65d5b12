// woodshed report: the notes of a take against the beat (ta_report_buffer),
// as a table, as JSON, and as a picture (SVG) of the pitch curve
// (tn_offline_track) on note lanes with the beat grid and each onset's
// timing.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"
#include "json_out.hpp"
#include "woodshed/takes.h"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"bpm", true}, {"beats", true}, {"subdivision", true}, {"first-beat", true},
    {"a4", true},  {"json", false}, {"svg", true},
};

struct Take {
    std::vector<float> mono;
    uint32_t rate = 0;
};

Take read_take(const std::string& path) {
    AudioReader reader(path, 8000, 384000, 48000);
    std::vector<float> interleaved;
    while (reader.read(interleaved, 65536) > 0) {
    }
    Take t;
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

void print_table(const std::vector<TakeReportNote>& notes, const TakeReportSummary& s, double rate) {
    std::printf("  #  bar.beat  onset s   timing ms  note   cents  spread  length s\n");
    for (size_t i = 0; i < notes.size(); ++i) {
        const TakeReportNote& n = notes[i];
        char pos[24];
        if (n.step > 0) {
            std::snprintf(pos, sizeof pos, "%d.%d+%d", n.bar, n.beat, n.step);
        } else {
            std::snprintf(pos, sizeof pos, "%d.%d", n.bar, n.beat);
        }
        std::printf("%3d  %-8s %8.3f  %+9.1f  %-5s %+6.1f  %6.1f  %8.3f\n", static_cast<int>(i + 1), pos,
                    static_cast<double>(n.onset_frame) / rate, n.deviation_ms, n.name, n.cents,
                    n.cents_spread, static_cast<double>(n.duration_frames) / rate);
    }
    if (s.notes == 0) {
        std::printf("no notes found\n");
        return;
    }
    std::printf("notes: %d\n", s.notes);
    std::printf("timing: mean |deviation| %.1f ms, %.0f %% within +-20 ms\n",
                s.mean_abs_deviation_ms, 100.0 * s.share_within_20ms);
    std::printf("tuning: mean |deviation| %.1f cents, %.0f %% within +-10 cents\n", s.mean_abs_cents,
                100.0 * s.share_within_10_cents);
}

void print_report_json(const std::string& path, const std::vector<TakeReportNote>& notes,
                       const TakeReportSummary& s, double rate, double bpm) {
    Json list = Json::array();
    for (const TakeReportNote& n : notes) {
        list.push_back({{"onset_s", static_cast<double>(n.onset_frame) / rate},
                        {"duration_s", static_cast<double>(n.duration_frames) / rate},
                        {"bar", n.bar},
                        {"beat", n.beat},
                        {"step", n.step},
                        {"deviation_ms", n.deviation_ms},
                        {"note", n.note},
                        {"name", std::string(n.name)},
                        {"frequency_hz", n.frequency_hz},
                        {"cents", n.cents},
                        {"cents_spread", n.cents_spread}});
    }
    print_json({{"take", path},
                {"sample_rate", s.sample_rate},
                {"bpm", bpm},
                {"notes", list},
                {"summary",
                 {{"notes", s.notes},
                  {"mean_abs_deviation_ms", s.mean_abs_deviation_ms},
                  {"share_within_20ms", s.share_within_20ms},
                  {"mean_abs_cents", s.mean_abs_cents},
                  {"share_within_10_cents", s.share_within_10_cents}}}});
}

// Green within the tolerance a musician aims for, amber near it, red beyond.
const char* shade(double v, double good, double fair) {
    const double a = std::fabs(v);
    return a <= good ? "#2e9d4f" : a <= fair ? "#e0a020" : "#d13b3b";
}

void write_svg(const std::string& file, const Take& take, const std::vector<TakeReportNote>& notes,
               const std::vector<TunerReading>& track, const TakeReportGrid& grid) {
    const double rate = take.rate;
    const double seconds = static_cast<double>(take.mono.size()) / rate;
    int lo = 127, hi = 0;
    for (const auto& n : notes) lo = std::min(lo, n.note), hi = std::max(hi, n.note);
    if (notes.empty()) lo = 57, hi = 69;
    lo -= 1;
    hi += 1;
    const double px_s = std::clamp(1600.0 / seconds, 80.0, 300.0);
    const double left = 56, strip = 90, top = 40 + strip, lane = 26;
    const double width = left + seconds * px_s + 20;
    const double height = top + (hi - lo + 1) * lane + 40;
    const auto x_of = [&](double frame) { return left + frame / rate * px_s; };
    const auto y_of = [&](double note) { return top + (hi - note + 0.5) * lane; };

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
    for (int n = lo; n <= hi; ++n) {
        add("<rect x=\"%.0f\" y=\"%.1f\" width=\"%.0f\" height=\"%.1f\" fill=\"%s\"/>\n", left,
            y_of(n) - lane / 2, width - left, lane, kBlack[((n % 12) + 12) % 12] ? "#eef0f4" : "#f9fafc");
        add("<text x=\"6\" y=\"%.1f\" fill=\"#555\">%s%d</text>\n", y_of(n) + 4,
            kNames[((n % 12) + 12) % 12], n / 12 - 1);
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
    // written beside it.
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
        add("<text x=\"%.1f\" y=\"%.1f\" fill=\"#333\" font-size=\"9\">%+.0f</text>\n", xg + 5,
            h > 0 ? mid - 3 : mid + 10, std::fabs(n.deviation_ms) < 0.5 ? 0.0 : n.deviation_ms);
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
    // The pitch curve: every pitched reading at its window's middle.
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
        if (nearest < lo || nearest > hi) continue;
        const double y = y_of(nearest) - (semis - nearest) * lane;
        const double t_end = static_cast<double>(r.time_us) * 1e-6;
        const double x = left + t_end * px_s;
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

int run_report(std::span<const std::string> args) {
    const Options opts("report", args, kSpecs);
    if (opts.help()) {
        std::fputs(kReportCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(1, "a TAKE");
    const auto bpm_text = opts.value("bpm");
    if (!bpm_text) throw UsageError("'report' needs --bpm (see 'woodshed report --help')");
    const double bpm = parse_number("bpm", *bpm_text, 10, 400);
    TakeReportGrid grid{static_cast<int64_t>(std::llround(bpm * 1e6)), 0, 4, 1};
    if (auto v = opts.value("beats")) grid.beats_per_bar = static_cast<int32_t>(parse_number("beats", *v, 1, 32));
    if (auto v = opts.value("subdivision")) {
        grid.subdivision = static_cast<int32_t>(parse_number("subdivision", *v, 1, 16));
    }
    TunerConfig tuner{440.0, 55.0, 1200.0, 5.0, -1, 0};
    if (auto v = opts.value("a4")) tuner.a4_hz = parse_number("a4", *v, 400, 480);
    const std::string& path = opts.positionals()[0];

    const Take take = read_take(path);
    if (auto v = opts.value("first-beat")) {
        grid.first_beat_frame = std::llround(parse_number("first-beat", *v, -3600, 1e6) * take.rate);
    }
    if (take.mono.size() > static_cast<size_t>(INT32_MAX)) input_error(path, "too long for a report");
    const int64_t frames = static_cast<int64_t>(take.mono.size());
    int32_t count = 0;
    TakeReportSummary summary{};
    int32_t rc = ta_report_buffer(take.mono.data(), frames, static_cast<int32_t>(take.rate), &tuner,
                                  &grid, nullptr, &count, &summary);
    std::vector<TakeReportNote> notes(static_cast<size_t>(std::max(summary.notes, 0)));
    count = summary.notes;
    if (rc == ws_ok && count > 0) {
        rc = ta_report_buffer(take.mono.data(), frames, static_cast<int32_t>(take.rate), &tuner, &grid,
                              notes.data(), &count, &summary);
    }
    if (rc != ws_ok) throw Failure("the report failed with code " + std::to_string(rc));
    notes.resize(static_cast<size_t>(count));

    if (opts.flag("json")) {
        print_report_json(path, notes, summary, take.rate, bpm);
    } else {
        print_table(notes, summary, take.rate);
    }
    if (auto svg = opts.value("svg")) {
        int32_t readings = 0;
        const int32_t n32 = static_cast<int32_t>(frames);
        tn_offline_track(&tuner, take.mono.data(), n32, 1, take.rate, nullptr, &readings);
        std::vector<TunerReading> track(static_cast<size_t>(readings));
        if (readings > 0) tn_offline_track(&tuner, take.mono.data(), n32, 1, take.rate, track.data(), &readings);
        track.resize(static_cast<size_t>(std::max(readings, 0)));
        write_svg(*svg, take, notes, track, grid);
    }
    return kExitOk;
}

}  // namespace

const Command kReportCommand = {
    "report",
    "report TAKE --bpm BPM [options]",
    "the notes of a take: in time with the beat? in tune?",
    "usage: woodshed report TAKE --bpm BPM [options]\n"
    "\n"
    "Finds the notes played in a take (WAV, FLAC, MP3; a cleaned take is best)\n"
    "and prints, for each: its place in the bar (bar.beat, +step for the steps\n"
    "between beats), its onset, how far it fell from that grid position in ms\n"
    "(negative: early), the note, its median deviation in cents (negative:\n"
    "flat) with the spread of that deviation over the note, and its length.\n"
    "Then the summary: mean timing deviation and the share of notes within\n"
    "+-20 ms; mean tuning deviation and the share within +-10 cents.\n"
    "\n"
    "options:\n"
    "  --bpm BPM            tempo of the take, 10..400 (required)\n"
    "  --beats N            beats per bar, 1..32 (default 4)\n"
    "  --subdivision N      grid steps per beat, 1..16 (default 1; 2 for eighths)\n"
    "  --first-beat SECONDS where beat 1 of bar 1 falls in the take (default 0)\n"
    "  --a4 HZ              reference pitch of A4, 400..480 (default 440)\n"
    "  --json               print the notes and summary as JSON instead\n"
    "  --svg FILE           also draw the take: pitch curve on note lanes, notes\n"
    "                       shaded by their cents, the beat grid, and each\n"
    "                       onset's distance from its beat as a bar\n"
    "  -h, --help           show this help\n",
    run_report,
};

}  // namespace cli
