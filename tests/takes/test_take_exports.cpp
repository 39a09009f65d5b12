// ta_analyze and ta_clean through the shared library, as a host calls them:
// exact result codes and records, and files on disk before and after.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#if !defined(_WIN32)
#  include <sys/stat.h>
#  include <unistd.h>
#endif

#include "files.hpp"
#include "signals.hpp"
#include "woodshed/takes.h"

namespace {

namespace s = ws::test;

template <class Record>
Record sentinel() {
    Record r;
    std::memset(&r, 0xA5, sizeof r);
    return r;
}

template <class Record>
bool all_zero(const Record& r) {
    const Record zero{};
    return std::memcmp(&r, &zero, sizeof r) == 0;
}

template <class Record>
bool untouched(const Record& r) {
    const Record s0 = sentinel<Record>();
    return std::memcmp(&r, &s0, sizeof r) == 0;
}

// A reference and a take made from it: the take is the reference from
// `offset` frames on, delayed by `delay` frames, at 0.5, with a quiet
// musician on top.
struct Files {
    s::TempDir dir;
    std::string ref, take;
    std::vector<float> reference;
    Files(uint32_t rate, size_t frames, size_t offset, size_t delay, uint16_t take_channels = 1) {
        ref = dir.file("backing.wav");
        take = dir.file("take.wav");
        reference = s::music(frames + offset, rate, 21);
        const std::vector<float> heard(reference.begin() + static_cast<std::ptrdiff_t>(offset), reference.end());
        auto t = s::mix(s::delayed(heard, static_cast<double>(delay), frames), s::music(frames, rate, 22), 0.1f);
        for (auto& v : t) v *= 0.5f;
        EXPECT_TRUE(s::write_file(ref, s::wav16(reference, rate)));
        EXPECT_TRUE(s::write_file(take, s::wav16(t, rate, take_channels)));
    }
};

// Every refusal: its code, a cleared record, and every file as it was.
TEST(TakeExports, RefusalsLeaveEveryFileAsItWas) {
    Files f(44100, 44100, 0, 100);
    const std::string other_rate = f.dir.file("48k.wav"), text = f.dir.file("notes.txt"),
                      eight_bit = f.dir.file("8bit.wav"), missing = f.dir.file("missing.wav");
    ASSERT_TRUE(s::write_file(other_rate, s::wav16(s::music(48000, 48000, 3), 48000)));
    ASSERT_TRUE(s::write_file(text, {'h', 'e', 'l', 'l', 'o'}));
    s::WavBytes w;
    w.riff().chunk("fmt ", s::fmt_body(1, 1, 44100, 8)).chunk("data", std::vector<uint8_t>(1000, 128)).finish();
    ASSERT_TRUE(s::write_file(eight_bit, w.bytes));
    const char* ref = f.ref.c_str();
    const char* take = f.take.c_str();
    struct Row { const char* what; const char* ref; const char* take; int64_t delay; int32_t code; bool both = true; };
    std::vector<Row> rows = {
        {"no reference path", nullptr, take, 100, ws_invalid_argument},
        {"no take path", ref, nullptr, 100, ws_invalid_argument},
        {"take = backing", ref, ref, 100, ws_invalid_argument},
        {"delay past 2^40", ref, take, (int64_t{1} << 40) + 1, ws_invalid_argument, false},
        {"delay before -2^40", ref, take, -(int64_t{1} << 40) - 1, ws_invalid_argument, false},
        {"delay INT64_MIN", ref, take, INT64_MIN, ws_invalid_argument, false},
        {"missing reference", missing.c_str(), take, 100, ws_unsupported_format},
        {"missing take", ref, missing.c_str(), 100, ws_unsupported_format},
        {"rates differ", other_rate.c_str(), take, 100, ws_unsupported_format},
        {"rates differ the other way", ref, other_rate.c_str(), 100, ws_unsupported_format},
        {"not a WAV file", text.c_str(), take, 100, ws_unsupported_format},
        {"8-bit take", ref, eight_bit.c_str(), 100, ws_unsupported_format},
        {"a directory", f.dir.path().c_str(), take, 100, ws_unsupported_format},
    };
#if !defined(_WIN32)
    // Other names of the backing; a FIFO, which must not make the call wait.
    const std::string hard = f.dir.file("hard.wav"), soft = f.dir.file("soft.wav"), fifo = f.dir.file("fifo.wav");
    ASSERT_EQ(::link(ref, hard.c_str()), 0);
    ASSERT_EQ(::symlink("backing.wav", soft.c_str()), 0);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
    rows.push_back({"take = a hard link of the backing", ref, hard.c_str(), 100, ws_invalid_argument});
    rows.push_back({"take = a symlink to the backing", soft.c_str(), ref, 100, ws_invalid_argument});
    rows.push_back({"take is a FIFO", ref, fifo.c_str(), 100, ws_unsupported_format});
    rows.push_back({"reference is a FIFO", fifo.c_str(), take, 100, ws_unsupported_format});
#endif
    const auto listed = f.dir.list();
    const auto take_bytes = s::read_file(f.take), ref_bytes = s::read_file(f.ref);
    for (const auto& r : rows) {
        if (r.both) {
            TakeAnalysis a = sentinel<TakeAnalysis>();
            EXPECT_EQ(ta_analyze(r.ref, r.take, 0, 0, 500, &a), r.code) << r.what;
            EXPECT_TRUE(all_zero(a)) << r.what;
        }
        TakeCleaning c = sentinel<TakeCleaning>();
        EXPECT_EQ(ta_clean(r.ref, r.take, 0, r.delay, &c), r.code) << r.what;
        EXPECT_TRUE(all_zero(c)) << r.what;
    }
    // No record: -3 and nothing written anywhere.
    EXPECT_EQ(ta_analyze(ref, take, 0, 0, 500, nullptr), ws_invalid_argument);
    EXPECT_EQ(ta_clean(ref, take, 0, 100, nullptr), ws_invalid_argument);
    EXPECT_EQ(s::read_file(f.take), take_bytes);
    EXPECT_EQ(s::read_file(f.ref), ref_bytes);
    EXPECT_EQ(f.dir.list(), listed);
}

TEST(TakeExports, AnalyzeFindsTheDelayAfterTheReferenceOffset) {
    // The take started 1.5 s into the backing track and hears it 1234
    // frames late.
    Files f(48000, 3 * 48000, 72000, 1234);
    TakeAnalysis a = sentinel<TakeAnalysis>();
    ASSERT_EQ(ta_analyze(f.ref.c_str(), f.take.c_str(), 1500, 0, 100, &a), ws_ok);
    EXPECT_EQ(a.delay_frames, 1234);
    EXPECT_EQ(a.sample_rate, 48000u);
    EXPECT_EQ(a.valid, 1u);
    EXPECT_GE(a.score, 8.0);
    EXPECT_EQ(a.reserved, 0u);
    // Searching a range that excludes it: found, but not valid.
    ASSERT_EQ(ta_analyze(f.ref.c_str(), f.take.c_str(), 1500, 0, 20, &a), ws_ok);
    EXPECT_EQ(a.valid, 0u);
    // Without the offset the take matches 1.5 s earlier: a delay of
    // 1234 - 72000 frames, found when the range allows it.
    ASSERT_EQ(ta_analyze(f.ref.c_str(), f.take.c_str(), 0, -2000, 0, &a), ws_ok);
    EXPECT_EQ(a.delay_frames, 1234 - 72000);
    EXPECT_EQ(a.valid, 1u);
}

TEST(TakeExports, AnalyzeWithNothingToAnalyseStillSucceeds) {
    Files f(44100, 44100, 0, 100);
    struct Row { const char* what; int32_t offset, lo, hi; };
    const Row rows[] = {
        {"range upside down", 0, 500, 400},
        {"offset beyond the reference", 5000, 0, 500},
        {"offset leaving less than a quarter second", 760, 0, 500},
    };
    for (const auto& r : rows) {
        TakeAnalysis a = sentinel<TakeAnalysis>();
        ASSERT_EQ(ta_analyze(f.ref.c_str(), f.take.c_str(), r.offset, r.lo, r.hi, &a), ws_ok) << r.what;
        EXPECT_EQ(a.score, 0.0) << r.what;
        EXPECT_EQ(a.delay_frames, 0) << r.what;
        EXPECT_EQ(a.valid, 0u) << r.what;
        EXPECT_EQ(a.sample_rate, 44100u) << r.what;
        EXPECT_EQ(a.reserved, 0u);
    }
}

TEST(TakeExports, CleanRewritesTheTakeInPlace) {
    Files f(44100, 100000, 0, 700, 2);  // a stereo take comes back mono
    TakeAnalysis a{};
    ASSERT_EQ(ta_analyze(f.ref.c_str(), f.take.c_str(), 0, 0, 500, &a), ws_ok);
    ASSERT_EQ(a.valid, 1u);
    ASSERT_EQ(a.delay_frames, 700);
    TakeCleaning c = sentinel<TakeCleaning>();
    ASSERT_EQ(ta_clean(f.ref.c_str(), f.take.c_str(), 0, a.delay_frames, &c), ws_ok);
    EXPECT_EQ(c.cleaned, 1u);
    EXPECT_EQ(c.delay_frames, 700);
    EXPECT_EQ(c.sample_rate, 44100u);
    EXPECT_EQ(c.reserved, 0u);
    // The musician was 20 dB under the leak; what remains is about her.
    EXPECT_GT(c.reduction_db, 15.0);
    EXPECT_LT(c.reduction_db, 25.0);
    const s::Take cleaned = s::read_take(f.take);
    EXPECT_EQ(cleaned.rate, 44100u);
    EXPECT_EQ(cleaned.samples.size(), 100000u);
    EXPECT_EQ(f.dir.list(), (std::vector<std::string>{"backing.wav", "take.wav"}));
}

TEST(TakeExports, CleanWithASilentReferenceLeavesTheTakeAlone) {
    s::TempDir dir;
    const std::string ref = dir.file("silence.wav"), take = dir.file("take.wav");
    ASSERT_TRUE(s::write_file(ref, s::wav16(std::vector<float>(20000, 0.0f), 22050)));
    const auto music = s::music(20000, 22050, 4);
    ASSERT_TRUE(s::write_file(take, s::wav16(music, 22050)));
    const auto before = s::read_file(take);
    TakeCleaning c{};
    ASSERT_EQ(ta_clean(ref.c_str(), take.c_str(), 0, 0, &c), ws_ok);
    EXPECT_EQ(c.reduction_db, 0.0);
    EXPECT_EQ(c.cleaned, 0u);  // nothing to remove: the file is not rewritten
    EXPECT_EQ(c.sample_rate, 22050u);
    EXPECT_EQ(s::read_file(take), before);
}

TEST(TakeExports, CleanRefusesTooShortATakeOrAnEmptyReference) {
    Files f(44100, 8191, 0, 10);
    const auto before = s::read_file(f.take);
    TakeCleaning c = sentinel<TakeCleaning>();
    EXPECT_EQ(ta_clean(f.ref.c_str(), f.take.c_str(), 0, 10, &c), ws_invalid_argument);
    EXPECT_TRUE(all_zero(c));
    EXPECT_EQ(s::read_file(f.take), before);
    // An offset past the reference's end leaves nothing to subtract.
    Files g(44100, 20000, 0, 10);
    EXPECT_EQ(ta_clean(g.ref.c_str(), g.take.c_str(), 1000, 10, &c), ws_invalid_argument);
    EXPECT_TRUE(all_zero(c));
    Files h(44100, 8192, 0, 10);  // one frame more is enough
    EXPECT_EQ(ta_clean(h.ref.c_str(), h.take.c_str(), 0, 10, &c), ws_ok);
}

// A take an older version left only as its backup is cleaned again: the
// backup takes the take's name first.
TEST(TakeExports, CleanRestoresAStrandedTake) {
    Files f(44100, 20000, 0, 300);
    ASSERT_TRUE(s::write_file(f.take + ".tawbak", s::read_file(f.take)));
    ASSERT_EQ(std::remove(f.take.c_str()), 0);
    TakeCleaning c{};
    ASSERT_EQ(ta_clean(f.ref.c_str(), f.take.c_str(), 0, 300, &c), ws_ok);
    EXPECT_EQ(c.cleaned, 1u);
    EXPECT_EQ(f.dir.list(), (std::vector<std::string>{"backing.wav", "take.wav"}));
}

}  // namespace
