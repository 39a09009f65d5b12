// woodshed report: the notes of a take against the beat (ta_report_buffer),
// as a table, as JSON, and as a picture (SVG) of the pitch curve
// (tn_offline_track) on note lanes with the beat grid and each onset's
// timing. Beat 1 is given, or found from the backing: its first sound,
// heard in the take at the backing's delay (ta_analyze).
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cli.hpp"
#include "json_out.hpp"
#include "report_view.hpp"
#include "takes_cli.hpp"
#include "woodshed/takes.h"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"bpm", true}, {"beats", true}, {"subdivision", true}, {"first-beat", true},
    {"a4", true},  {"json", false}, {"svg", true}, {"backing", true}, {"delay", true},
};

// Mean power of x[from, to), clipped to x.
double power(const std::vector<float>& x, int64_t from, int64_t to) {
    from = std::clamp<int64_t>(from, 0, static_cast<int64_t>(x.size()));
    to = std::clamp<int64_t>(to, from, static_cast<int64_t>(x.size()));
    double sum = 0.0;
    for (int64_t i = from; i < to; ++i) sum += static_cast<double>(x[static_cast<size_t>(i)]) * x[static_cast<size_t>(i)];
    return to > from ? sum / static_cast<double>(to - from) : 0.0;
}

// Where beat 1 falls in the take, from the backing: the backing's first
// sound (a count-in, or a start on the downbeat) heard `delay` frames into
// the take. Only a backing that then sounds on the beats at `bpm` is
// trusted: its energy must rise at two of the three beats after the first
// (a pad fading in, or a pickup before bar 1, fails this and asks for
// --first-beat instead).
int64_t beat_one_from_backing(const std::string& path, double rate, int64_t delay, double bpm) {
    const MonoTake backing = read_mono_take(path);
    if (static_cast<double>(backing.rate) != rate) {
        input_error(path, "has another sample rate than the take (" + std::to_string(backing.rate) + " Hz)");
    }
    float peak = 0.0f;
    for (float v : backing.mono) peak = std::max(peak, std::fabs(v));
    if (peak <= 0.0f) input_error(path, "is silent: no beat to find");
    // The first frame 40 dB under the loudest: within a fraction of a
    // millisecond of a click's or a drum's start.
    int64_t first = 0;
    while (std::fabs(backing.mono[static_cast<size_t>(first)]) < 0.01f * peak) ++first;
    const double beat = 60.0 * rate / bpm;
    const auto ms = [&](double m) { return static_cast<int64_t>(std::llround(m * rate / 1000.0)); };
    int rising = 0;
    for (int k = 1; k <= 3; ++k) {
        const int64_t at = first + static_cast<int64_t>(std::llround(k * beat));
        if (power(backing.mono, at - ms(2), at + ms(20)) > 2.0 * power(backing.mono, at - ms(40), at - ms(5))) ++rising;
    }
    if (rising < 2) {
        throw Failure("the backing '" + path + "' does not begin with beats at this tempo (its energy rises at " +
                      std::to_string(rising) + " of the 3 beats after its first sound); give --first-beat");
    }
    return delay + first;
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

    const auto backing = opts.value("backing");
    if (backing && opts.value("first-beat")) throw UsageError("give --first-beat or --backing, not both");
    if (!backing && opts.value("delay")) throw UsageError("--delay goes with --backing");
    // With a backing the take is read through the take tools' own input
    // (stdin is read once, into a copy), as its delay may have to be found.
    std::unique_ptr<takes::Input> prepared;
    if (backing) prepared = std::make_unique<takes::Input>(takes::prepare(path, ""));
    const MonoTake take = read_mono_take(prepared ? prepared->library_path : path);
    if (auto v = opts.value("first-beat")) {
        grid.first_beat_frame = std::llround(parse_number("first-beat", *v, -3600, 1e6) * take.rate);
    }
    if (backing) {
        int64_t delay = 0;
        if (auto v = opts.value("delay")) {
            delay = static_cast<int64_t>(std::llround(parse_number("delay", *v, -1e12, 1e12)));
        } else {
            const takes::Input b = takes::prepare(*backing, "");
            takes::check_pair(b, *prepared);
            TakeAnalysis a{};
            takes::check(ta_analyze(b.library_path.c_str(), prepared->library_path.c_str(), 0, 0, 500, &a), b,
                         *prepared);
            if (a.valid != 1) {
                throw Failure("no trustworthy delay of the backing in the take (a cleaned take holds little of "
                              "it): give --delay as 'woodshed clean' or 'align' found it on the take as recorded");
            }
            delay = a.delay_frames;
        }
        grid.first_beat_frame = beat_one_from_backing(*backing, take.rate, delay, bpm);
        if (!opts.flag("json")) {
            std::printf("beat 1 at %.3f s: the backing's first sound, heard %lld frames into the take\n",
                        static_cast<double>(grid.first_beat_frame) / take.rate, static_cast<long long>(delay));
        }
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
    "  --backing FILE       beat 1 from the backing played during the take: its\n"
    "                       first sound (a count-in, or a start on the downbeat),\n"
    "                       heard at the backing's delay in the take; refused\n"
    "                       unless the backing then sounds on the beats at BPM\n"
    "  --delay FRAMES       that delay, as 'woodshed clean' or 'align' printed it\n"
    "                       (needed for a cleaned take; else it is found)\n"
    "  --a4 HZ              reference pitch of A4, 400..480 (default 440)\n"
    "  --json               print the notes and summary as JSON instead\n"
    "  --svg FILE           also draw the take: pitch curve on note lanes, notes\n"
    "                       shaded by their cents, the beat grid, and each\n"
    "                       onset's distance from its beat as a bar\n"
    "  -h, --help           show this help\n",
    run_report,
};

}  // namespace cli
