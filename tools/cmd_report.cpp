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
#include "report_view.hpp"
#include "woodshed/takes.h"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"bpm", true}, {"beats", true}, {"subdivision", true}, {"first-beat", true},
    {"a4", true},  {"json", false}, {"svg", true},
};

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

    const MonoTake take = read_mono_take(path);
    if (auto v = opts.value("first-beat")) {
        grid.first_beat_frame = std::llround(parse_number("first-beat", *v, -3600, 1e6) * take.rate);
    }
    if (take.mono.size() > static_cast<size_t>(INT32_MAX)) input_error(path, "too long for a report");
    const PracticeReport report = make_report(take, tuner, grid);
    if (opts.flag("json")) {
        print_report_json(path, report.notes, report.summary, take.rate, bpm);
    } else {
        print_report(report, take.rate, false, "");
    }
    if (auto svg = opts.value("svg")) write_report_svg(*svg, take, report, tuner, grid);
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
