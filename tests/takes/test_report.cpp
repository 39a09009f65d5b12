// The practice report against melodies whose answer is known: onsets placed
// where the notes were written, cents as they were detuned, grid positions
// by arithmetic; silence and a quiet leak give no notes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "files.hpp"
#include "signals.hpp"
#include "takes/report.hpp"
#include "woodshed/takes.h"

namespace {

constexpr double kRate = 44100;

struct Written {
    double onset_s;
    int note;
    double cents;
};

// Harmonic tones (1..5 at 1/h) with a 4 ms attack, held `hold` s, 25 ms release.
std::vector<float> melody(const std::vector<Written>& notes, double hold, double seconds) {
    std::vector<float> x(size_t(seconds * kRate), 0.0f);
    for (const Written& w : notes) {
        const double hz = 440.0 * std::exp2((w.note - 69 + w.cents / 100.0) / 12.0);
        const size_t at = size_t(std::llround(w.onset_s * kRate)), len = size_t((hold + 0.025) * kRate);
        for (size_t i = 0; i < len && at + i < x.size(); ++i) {
            const double t = double(i) / kRate;
            const double env = std::min({1.0, t / 0.004, (hold + 0.025 - t) / 0.025});
            double v = 0;
            for (int h = 1; h <= 5; ++h) v += std::sin(2 * 3.141592653589793 * hz * h * t) / h;
            x[at + i] += float(0.3 * env * v);
        }
    }
    return x;
}

// 96 BPM, eighths: a step is 0.3125 s; beat 1 at 0.25 s.
const TakeReportGrid kGrid{96000000, int64_t(0.25 * kRate), 3, 2};

std::vector<TakeReportNote> report(const std::vector<float>& x, TakeReportSummary& summary) {
    std::vector<TakeReportNote> notes(64);
    int32_t count = 64;
    EXPECT_EQ(ta_report_buffer(x.data(), int64_t(x.size()), int32_t(kRate), nullptr, &kGrid,
                               notes.data(), &count, &summary), ws_ok);
    notes.resize(size_t(count));
    return notes;
}

TEST(Report, AMelodyReadsAsWritten) {
    // Steps 0, 1, 3, 4, 6 (bar 2), the last an octave leap; shifted by known
    // ms and detuned by known cents, low strings to the treble.
    const double step = 0.3125;
    struct Row { int grid_step; double shift_ms; int note; double cents; int bar, beat, sub; const char* name; };
    const Row rows[] = {{0, -12, 45, 0, 1, 1, 0, "A2"},   {1, 25, 52, 14, 1, 1, 1, "E3"},
                        {3, 4, 59, -9, 1, 2, 1, "B3"},    {4, -40, 64, 22, 1, 3, 0, "E4"},
                        {6, 55, 76, -18, 2, 1, 0, "E5"}};
    std::vector<Written> written;
    for (const Row& r : rows) written.push_back({0.25 + r.grid_step * step + r.shift_ms / 1000, r.note, r.cents});
    TakeReportSummary summary{};
    const auto notes = report(melody(written, 0.22, 3.0), summary);
    ASSERT_EQ(notes.size(), std::size(rows));
    double abs_dev = 0, abs_cents = 0;
    for (size_t i = 0; i < notes.size(); ++i) {
        const Row& r = rows[i];
        const TakeReportNote& n = notes[i];
        EXPECT_NEAR(double(n.onset_frame) / kRate, written[i].onset_s, 0.003) << i;
        EXPECT_NEAR(n.deviation_ms, r.shift_ms, 3.0) << i;
        EXPECT_EQ(n.grid_frame, std::llround(double(kGrid.first_beat_frame) + r.grid_step * step * kRate)) << i;
        EXPECT_EQ(n.note, r.note) << i;
        EXPECT_STREQ(n.name, r.name);
        EXPECT_NEAR(n.cents, r.cents, 1.0) << i;
        EXPECT_LT(n.cents_spread, 1.0) << i;
        EXPECT_EQ((n.bar * 100 + n.beat) * 10 + n.step, (r.bar * 100 + r.beat) * 10 + r.sub) << i;
        EXPECT_NEAR(double(n.duration_frames) / kRate, 0.24, 0.03) << i;
        abs_dev += std::fabs(n.deviation_ms);
        abs_cents += std::fabs(n.cents);
    }
    EXPECT_EQ(summary.notes, 5);
    EXPECT_NEAR(summary.mean_abs_deviation_ms, abs_dev / 5, 1e-9);
    EXPECT_NEAR(summary.share_within_20ms, 2.0 / 5, 1e-12);  // -12 and 4 ms
    EXPECT_NEAR(summary.mean_abs_cents, abs_cents / 5, 1e-9);
    EXPECT_NEAR(summary.share_within_10_cents, 2.0 / 5, 1e-12);  // 0 and -9 cents
}

// A note struck again after a 25 ms gap, then one slurred into the next:
// the onset detector alone, and the report's split of one pitch run into
// two notes. Then 60 ms notes, each struck over the release of the one
// before (an octave up, a restrike), where the tracker's guard holds the earlier.
TEST(Report, RepeatedAndLegatoNotesAreSeparateOnsets) {
    const std::vector<Written> twice{{0.3, 57, 0},  {0.75, 57, 0}, {1.2, 62, 0}, {2.0, 61, 0},
                                     {2.09, 45, 0}, {2.18, 57, 0}, {2.5, 72, 0}, {2.563, 69, 0},
                                     {2.8, 64, 0},  {2.882, 64, 0}};
    auto x = melody({twice[0]}, 0.425, 3.2);
    const auto slurred = melody({twice[1], twice[2]}, 0.45, 3.2),
               quick = melody({twice.begin() + 3, twice.end()}, 0.06, 3.2);
    for (size_t i = 0; i < x.size(); ++i) x[i] += slurred[i] + quick[i];
    const auto onsets = ws::takes::detect_onsets(x.data(), x.size(), uint32_t(kRate));
    ASSERT_GE(onsets.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_NEAR(double(onsets[i]) / kRate, twice[i].onset_s, 0.006) << i;
    TakeReportSummary summary{};
    const auto notes = report(x, summary);
    ASSERT_EQ(notes.size(), twice.size());
    for (size_t i = 1; i < twice.size(); ++i) EXPECT_EQ(notes[i].note, twice[i].note) << i;
    for (size_t i = 1; i < twice.size(); ++i)
        EXPECT_NEAR(double(notes[i].onset_frame) / kRate, twice[i].onset_s, 0.006) << i;
}

// What a cleaning leaves of a backing sounds without an attack of its own
// (here faded in over 0.3 s), 15 dB under the player: it makes no note, and
// a note played on the pitch it holds begins where it is struck.
TEST(Report, SilenceAndLeftoversOfALeakGiveNoNotes) {
    std::vector<float> x(size_t(3 * kRate), 0.0f);
    TakeReportSummary summary{};
    EXPECT_TRUE(report(x, summary).empty());
    EXPECT_EQ(summary.frames, int64_t(x.size()));
    // Leftovers faded in 15 dB under the player, or struck 25 dB under it.
    struct Row {
        std::vector<Written> leak, played;
        double gain, fade_s;
    };
    const Row rows[] = {{{{1.0, 48, 0}, {1.0, 55, 0}, {1.0, 64, 0}}, {{0.3, 60, 0}}, 0.18, 0.3},
                        {{{0.4, 48, 0}}, {{1.5, 48, 0}}, 0.18, 0.3},
                        {{{0.3, 74, 0}}, {{2.4, 60, 0}}, 0.056, 0.0}};
    for (const Row& r : rows) {
        x = melody(r.played, 0.4, 3.0);
        const auto leak = melody(r.leak, 1.8, 3.0);
        for (size_t i = 0; i < x.size(); ++i) {
            const double in = double(i) / kRate - r.leak[0].onset_s;
            x[i] += float(r.gain * (r.fade_s > 0 ? std::clamp(in / r.fade_s, 0.0, 1.0) : in >= 0)) * leak[i];
        }
        const auto notes = report(x, summary);
        ASSERT_EQ(notes.size(), 1u) << r.played[0].onset_s;
        EXPECT_EQ(notes[0].note, r.played[0].note);
        EXPECT_NEAR(double(notes[0].onset_frame) / kRate, r.played[0].onset_s, 0.003);
    }
}

TEST(Report, ArgumentsFilesAndRoom) {
    const auto x = melody({{0.3, 60, 0}, {0.9, 64, 0}}, 0.3, 1.5);
    TakeReportNote one[1];
    int32_t count = 1;
    TakeReportSummary summary{};
    const int64_t n = int64_t(x.size());
    EXPECT_EQ(ta_report_buffer(nullptr, n, 44100, nullptr, &kGrid, one, &count, &summary), ws_invalid_argument);
    EXPECT_EQ(ta_report_buffer(x.data(), n, 7999, nullptr, &kGrid, one, &count, &summary), ws_invalid_argument);
    EXPECT_EQ(ta_report_buffer(x.data(), n, 44100, nullptr, nullptr, one, &count, &summary), ws_invalid_argument);
    EXPECT_EQ(ta_report_buffer(x.data(), n, 44100, nullptr, &kGrid, nullptr, &count, &summary), ws_invalid_argument);
    EXPECT_EQ(ta_report_buffer(x.data(), n, 44100, nullptr, &kGrid, one, nullptr, &summary), ws_invalid_argument);
    // Room for one of two: the first is written, the summary counts both.
    ASSERT_EQ(ta_report_buffer(x.data(), n, 44100, nullptr, &kGrid, one, &count, &summary), ws_ok);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(summary.notes, 2);
    EXPECT_EQ(one[0].note, 60);
    // The same take from a file; a missing file is -14.
    ws::test::TempDir dir;
    const std::string path = dir.file("take.wav");
    ASSERT_TRUE(ws::test::write_file(path, ws::test::wav16(x, 44100)));
    TakeReportNote two[2];
    count = 2;
    ASSERT_EQ(ta_report(path.c_str(), nullptr, &kGrid, two, &count, &summary), ws_ok);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(two[1].note, 64);
    EXPECT_NEAR(double(two[1].onset_frame) / kRate, 0.9, 0.003);
    EXPECT_EQ(ta_report(dir.file("none.wav").c_str(), nullptr, &kGrid, two, &count, &summary),
              ws_unsupported_format);
    EXPECT_EQ(count, 0);
}

}  // namespace
