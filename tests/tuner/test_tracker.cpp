// Note tracking on sequences of per-frame estimates whose notes and cents
// follow from equal temperament.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "signals.hpp"
#include "tuner/config.hpp"
#include "tuner/note_tracker.hpp"

namespace {

using ws::tuner::FrameInput;
using ws::tuner::FrameTiming;
using ws::tuner::NoteTracker;
using ws::test::midi_hz;

constexpr FrameTiming kTiming{1024, 2048, 1, 48000.0, 48000.0};
constexpr double kDt = 1024.0 / 48000.0;

struct Harness {
    NoteTracker tracker;
    TunerReading reading = ws::tuner::cleared_reading();
    TunerConfig config = ws::tuner::kDefaultConfig;
    const TunerReading& frame(double f, double clarity = 0.9) {
        tracker.update(reading, FrameInput{f, f > 0 ? clarity : 0.0, 0.5, 0.25, false}, kTiming,
                       config);
        return reading;
    }
};

double cents(double f, double ref) { return 1200.0 * std::log2(f / ref); }

// The reference moves the notes; a fixed note keeps its name however far
// the pitch is from it.
TEST(NoteTracker, NamesNotesAndCents) {
    struct Row { double f, a4; int fixed; double tolerance; int note, octave; double cents; uint32_t state; };
    const Row rows[] = {
        {440.0, 440, -1, 5, 69, 4, 0.0, tn_state_in_tune},
        {452.0, 440, -1, 5, 69, 4, cents(452, 440), tn_state_pitched},          // about +46.6
        {453.0, 440, -1, 5, 70, 4, cents(453, midi_hz(70)), tn_state_pitched},  // about -49.6
        {82.4069, 440, -1, 5, 40, 2, cents(82.4069, midi_hz(40)), tn_state_in_tune},  // E2
        {442.0, 440, -1, 8, 69, 4, cents(442, 440), tn_state_in_tune},  // +7.85 cents
        {440.0, 442, -1, 5, 69, 4, cents(440, 442), tn_state_pitched},  // -7.85 cents
        {466.16, 440, 69, 5, 69, 4, cents(466.16, 440), tn_state_pitched},
        {220.0, 440, 64, 5, 64, 4, cents(220, midi_hz(64)), tn_state_pitched},
    };
    for (const auto& r : rows) {
        Harness h;
        h.config.a4_hz = r.a4;
        h.config.fixed_note = r.fixed;
        h.config.tolerance_cents = r.tolerance;
        const TunerReading& out = h.frame(r.f);
        SCOPED_TRACE(testing::Message() << r.f << " Hz at A4 = " << r.a4);
        EXPECT_EQ(out.note, r.note);
        EXPECT_EQ(out.octave, r.octave);
        EXPECT_NEAR(out.cents, r.cents, 1e-9);
        EXPECT_NEAR(out.target_hz, midi_hz(r.note, r.a4), 1e-9);
        EXPECT_EQ(out.state, r.state);
        EXPECT_EQ(out.frequency_hz, r.f);
    }
}

TEST(NoteTracker, ANewNoteIsTakenOnItsSecondFrameWithUnsmoothedCents) {
    Harness h;
    for (int i = 0; i < 3; ++i) h.frame(440.0);
    const double b4 = midi_hz(71) * std::pow(2.0, 10.0 / 1200.0);  // B4 + 10 cents
    const TunerReading first = h.frame(b4);
    EXPECT_EQ(first.state, tn_state_holding);
    EXPECT_EQ(first.note, 69);
    EXPECT_EQ(first.frequency_hz, 440.0);  // the held reading's values
    const TunerReading second = h.frame(b4);
    EXPECT_EQ(second.note, 71);
    EXPECT_NEAR(second.cents, 10.0, 1e-9);
    EXPECT_EQ(second.state, tn_state_pitched);
    EXPECT_EQ(second.strobe_phase, (b4 - midi_hz(71)) * 2 * ws::test::kPi * kDt);
    // A single-frame flicker, and alternating candidates, never change the note.
    EXPECT_EQ(h.frame(440.0).state, tn_state_holding);
    EXPECT_EQ(h.frame(b4).note, 71);
    EXPECT_EQ(h.frame(midi_hz(72)).note, 71);
    EXPECT_EQ(h.frame(midi_hz(74)).note, 71);
    EXPECT_EQ(h.frame(midi_hz(72)).note, 71);
}

TEST(NoteTracker, HoldsSixMissingFramesAndClearsOnTheSeventh) {
    Harness h;
    // Silence before any note keeps the silent reading.
    EXPECT_EQ(h.frame(0.0).state, tn_state_silent);
    EXPECT_EQ(h.reading.note, -1);
    h.frame(440.0);
    h.frame(441.0);
    const TunerReading before = h.reading;
    for (int i = 1; i <= 6; ++i) {
        const TunerReading r = h.frame(0.0);
        EXPECT_EQ(r.state, tn_state_holding) << i;
        EXPECT_TRUE(r.note == 69 && r.frequency_hz == before.frequency_hz && r.cents == before.cents) << i;
    }
    const TunerReading gone = h.frame(0.0);
    EXPECT_EQ(gone.state, tn_state_silent);
    EXPECT_TRUE(gone.note == -1 && gone.octave == 0 && gone.frequency_hz == 0.0 && gone.target_hz == 0.0 &&
                gone.cents == 0.0 && gone.clarity == 0.0);
    // A pitch after the silence starts afresh: unsmoothed cents.
    const TunerReading again = h.frame(452.0);
    EXPECT_NEAR(again.cents, cents(452, 440), 1e-9);
}

TEST(NoteTracker, SmoothingFactorDependsOnClarityAndTheSlowFlag) {
    // Step the raw cents from +10 to +20 on the same note; the first
    // smoothed step is (20 - 10) * alpha with alpha = clamp(0.3q + 0.08).
    const double f10 = 440.0 * std::pow(2.0, 10.0 / 1200.0);
    const double f20 = 440.0 * std::pow(2.0, 20.0 / 1200.0);
    struct Row { double clarity; int slow; double alpha; };
    const Row rows[] = {{0.6, 0, 0.26}, {0.9, 1, 0.175}, {1.5, 0, 0.42}, {0.0, 0, 0.08}};
    for (const auto& r : rows) {
        Harness h;
        h.config.slow_smoothing = r.slow;
        h.frame(f10, r.clarity);
        const TunerReading out = h.frame(f20, r.clarity);
        EXPECT_NEAR(out.cents, 10.0 + 10.0 * r.alpha, 1e-9) << r.clarity << " " << r.slow;
    }
}

TEST(NoteTracker, StrobeAdvancesByTheFrequencyErrorAndFolds) {
    Harness h;
    for (double f : {441.0, 441.0, 0.0}) h.frame(f);  // 1 Hz sharp twice, then a held frame that keeps it
    EXPECT_NEAR(h.reading.strobe_phase, 2.0 * 2 * ws::test::kPi * kDt, 1e-12);

    // A large, steady error folds the phase back below 2*pi once it passes a
    // million turns; fixed-note mode keeps the note steady meanwhile.
    Harness far;
    far.config.fixed_note = 40;
    double max_phase = 0.0, previous = 0.0;
    bool folded = false;
    for (int i = 0; i < 50000; ++i) {
        far.frame(1100.0);
        max_phase = std::max(max_phase, std::fabs(far.reading.strobe_phase));
        folded = folded || far.reading.strobe_phase < previous;
        previous = far.reading.strobe_phase;
    }
    EXPECT_TRUE(folded);
    EXPECT_LE(max_phase, 6283185.307179586 + 2 * ws::test::kPi * (1100.0 - midi_hz(40)) * kDt);
    EXPECT_LT(std::fabs(far.reading.strobe_phase), 6283185.307179586);
}

}  // namespace
