// The practice report as the command-line program shows it: the take read
// as mono, the notes found in it (ta_report_buffer), printed as a table and
// drawn as a picture. Shared by `woodshed report` and the demo's last step.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "woodshed/takes.h"
#include "woodshed/tuner.h"

namespace cli {

struct MonoTake {
    std::vector<float> mono;  // the channels' mean
    uint32_t rate = 0;
};

// Throws InputError when the file cannot be read or holds no audio.
MonoTake read_mono_take(const std::string& path);

struct PracticeReport {
    std::vector<TakeReportNote> notes;
    TakeReportSummary summary{};
};

// Throws Failure with the library's code when the report fails.
PracticeReport make_report(const MonoTake& take, const TunerConfig& tuner, const TakeReportGrid& grid);

// One line per note and the summary. Full: place in the bar, onset, timing,
// note, cents, spread, length. Compact: onset, timing, note, cents.
void print_report(const PracticeReport& report, double rate, bool compact, const char* indent);

// The picture: pitch curve (tn_offline_track) on note lanes, notes shaded by
// their cents, the beat grid and each onset's timing. Throws OutputError.
void write_report_svg(const std::string& file, const MonoTake& take, const PracticeReport& report,
                      const TunerConfig& tuner, const TakeReportGrid& grid);

}  // namespace cli
