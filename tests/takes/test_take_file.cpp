// The take file layer: which WAV files load and how, skip arithmetic, the
// writer's exact 16-bit conversion, and the replacement sequence under
// every kind of failure (the take on disk is always the old or the new
// file, and no temporary is left behind).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#if defined(__linux__)
#  include <sys/stat.h>
#  include <sys/wait.h>
#  include <unistd.h>
#endif
#if defined(_WIN32)
#  include <filesystem>
#endif

#include "frame/wav_header.hpp"
#include "take_signals.hpp"
#include "takes/take_file.hpp"

namespace {

namespace s = ws::test::takes;
using ws::takes::load_take_wav;
using ws::takes::load_take_wav_bytes;
using ws::takes::store_take_wav_safely;
using ws::takes::to_pcm16;

struct Loaded {
    bool ok = false;
    std::vector<float> samples;
    uint32_t rate = 0;
};

Loaded load_bytes(const std::vector<uint8_t>& bytes, uint64_t skip = 0) {
    Loaded l;
    l.samples = {9.0f};  // must be replaced on success
    l.ok = load_take_wav_bytes(bytes.data(), bytes.size(), skip, l.samples, l.rate);
    return l;
}

std::vector<uint8_t> fmt(uint16_t tag, uint16_t ch, uint32_t rate, uint16_t bits, size_t size = 16,
                         uint16_t sub = 1) {
    return s::fmt_body(tag, ch, rate, bits, size, sub);
}

const std::vector<int16_t> kValues = {0, 1, -1, 16384, -16384, 32767, -32768, 1000};

std::vector<float> mono_expected() {
    std::vector<float> v;
    for (int16_t x : kValues) v.push_back(static_cast<float>(x) / 32768.0f);
    return v;
}

// ---- loading ---------------------------------------------------------------

TEST(TakeLoader, AcceptedLayoutsAllLoadTheSameSamples) {
    const auto data = s::pcm16(kValues);
    struct Row { const char* what; s::WavBytes file; };
    std::vector<Row> rows;
    rows.push_back({"canonical", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16)).chunk("data", data)});
    rows.push_back({"18-byte fmt", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16, 18)).chunk("data", data)});
    rows.push_back({"extensible, integer PCM",
                    s::WavBytes().riff().chunk("fmt ", fmt(0xFFFE, 1, 44100, 16, 40, 1)).chunk("data", data)});
    rows.push_back({"odd chunk padded before data", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16))
                                                        .chunk("junk", {1, 2, 3}).chunk("data", data)});
    rows.push_back({"LIST after data", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16)).chunk("data", data)
                                           .chunk("LIST", std::vector<uint8_t>(26, 'x'))});
    rows.push_back({"data before fmt", s::WavBytes().riff().chunk("data", data).chunk("fmt ", fmt(1, 1, 44100, 16))});
    rows.push_back({"later fmt replaces earlier", s::WavBytes().riff().chunk("fmt ", fmt(3, 1, 8000, 32))
                                                      .chunk("data", data).chunk("fmt ", fmt(1, 1, 44100, 16))});
    rows.push_back({"short fmt is ignored", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16))
                                                .chunk("fmt ", std::vector<uint8_t>(14, 0)).chunk("data", data)});
    rows.push_back({"trailing partial chunk header", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16))
                                                         .chunk("data", data).raw({'a', 'b', 'c'})});
    rows.push_back({"fmt larger than 40 bytes", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 16, 50))
                                                    .chunk("data", data)});
    for (auto& r : rows) {
        const Loaded l = load_bytes(r.file.finish().bytes);
        ASSERT_TRUE(l.ok) << r.what;
        EXPECT_EQ(l.rate, 44100u) << r.what;
        EXPECT_EQ(l.samples, mono_expected()) << r.what;
    }
}

TEST(TakeLoader, RefusedFiles) {
    const auto data = s::pcm16(kValues);
    auto good_fmt = fmt(1, 1, 44100, 16);
    struct Row { const char* what; std::vector<uint8_t> bytes; };
    std::vector<Row> rows = {
        {"empty", {}},
        {"eleven bytes", [] { auto b = s::wav16({0.1f}, 8000); b.resize(11); return b; }()},
        {"not RIFF", [] { auto b = s::wav16({0.1f}, 8000); b[0] = 'X'; return b; }()},
        {"not WAVE", [] { auto b = s::wav16({0.1f}, 8000); b[11] = 'X'; return b; }()},
        {"no data chunk", s::WavBytes().riff().chunk("fmt ", good_fmt).finish().bytes},
        {"no fmt chunk", s::WavBytes().riff().chunk("data", data).finish().bytes},
        {"8 bit", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 8)).chunk("data", data).finish().bytes},
        {"24 bit", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 44100, 24)).chunk("data", data).finish().bytes},
        {"float", s::WavBytes().riff().chunk("fmt ", fmt(3, 1, 44100, 32)).chunk("data", data).finish().bytes},
        {"extensible float", s::WavBytes().riff().chunk("fmt ", fmt(0xFFFE, 1, 44100, 16, 40, 3))
                                 .chunk("data", data).finish().bytes},
        {"extensible without sub-format",
         s::WavBytes().riff().chunk("fmt ", fmt(0xFFFE, 1, 44100, 16, 18)).chunk("data", data).finish().bytes},
        {"three channels", s::WavBytes().riff().chunk("fmt ", fmt(1, 3, 44100, 16)).chunk("data", data).finish().bytes},
        {"no channels", s::WavBytes().riff().chunk("fmt ", fmt(1, 0, 44100, 16)).chunk("data", data).finish().bytes},
        {"rate 0", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 0, 16)).chunk("data", data).finish().bytes},
        {"rate above 2^31", s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 0x80000000u, 16)).chunk("data", data)
                                .finish().bytes},
        {"fmt cut short by the end of file", s::WavBytes().riff().chunk("fmt ", {1, 0, 1, 0}, 16).finish().bytes},
        {"huge chunk before fmt", s::WavBytes().riff().chunk("junk", {0, 0}, 0xFFFFFFF0u).chunk("fmt ", good_fmt)
                                      .chunk("data", data).finish().bytes},
    };
    for (const auto& r : rows) {
        const Loaded l = load_bytes(r.bytes);
        EXPECT_FALSE(l.ok) << r.what;
    }
}

TEST(TakeLoader, StereoIsTheMeanOfBothChannelsAtFullScale) {
    const std::vector<int16_t> lr = {32767, 32767, 32767, -32768, -32768, -32768, 1, 0, 100, -300, 7};
    const auto file = s::WavBytes().riff().chunk("fmt ", fmt(1, 2, 48000, 16)).chunk("data", s::pcm16(lr)).finish();
    const Loaded l = load_bytes(file.bytes);
    ASSERT_TRUE(l.ok);
    EXPECT_EQ(l.rate, 48000u);
    // The lone left sample at the end is dropped.
    const std::vector<float> expected = {65534.0f / 65536, -1.0f / 65536, -1.0f, 1.0f / 65536, -200.0f / 65536};
    EXPECT_EQ(l.samples, expected);
}

TEST(TakeLoader, SkipCountsFrames) {
    const auto mono = s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 8000, 16)).chunk("data", s::pcm16(kValues)).finish();
    const std::vector<int16_t> lr = {1, 3, 5, 7, 9, 11};
    const auto stereo = s::WavBytes().riff().chunk("fmt ", fmt(1, 2, 8000, 16)).chunk("data", s::pcm16(lr)).finish();
    struct Row { const s::WavBytes* file; uint64_t skip; std::vector<float> expected; };
    const auto m = mono_expected();
    const Row rows[] = {
        {&mono, 0, m},
        {&mono, 3, std::vector<float>(m.begin() + 3, m.end())},
        {&mono, 7, {m.back()}},
        {&mono, 8, {}},  // exactly the frame count: empty, and success
        {&mono, 1000, {}},
        {&mono, UINT64_MAX, {}},
        {&stereo, 1, {12.0f / 65536, 20.0f / 65536}},
        {&stereo, 2, {20.0f / 65536}},
        {&stereo, 3, {}},
    };
    for (const auto& r : rows) {
        const Loaded l = load_bytes(r.file->bytes, r.skip);
        ASSERT_TRUE(l.ok) << r.skip;
        EXPECT_EQ(l.rate, 8000u);
        EXPECT_EQ(l.samples, r.expected) << r.skip;
    }
}

TEST(TakeLoader, MillisecondsBecomeFramesByTruncation) {
    struct Row { uint32_t rate; int32_t ms; int64_t frames; uint64_t skip; };
    const Row rows[] = {
        {44100, 1000, 44100, 44100}, {44100, 1, 44, 44},   {44100, 0, 0, 0},
        {44100, -5, -220, 0},        {48000, 333, 15984, 15984},
        {44100, 2147483647, 94704028832, 94704028832},  // products beyond 32 bits
        {2147483647u, -2147483647 - 1, -4611686016279904, 0},
        {8000, 999, 7992, 7992},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(ws::takes::ms_to_frames(r.rate, r.ms), r.frames) << r.rate << " " << r.ms;
        EXPECT_EQ(ws::takes::skip_frames(r.rate, r.ms), r.skip) << r.rate << " " << r.ms;
    }
}

TEST(TakeLoader, ChunkSizesThatOverrunTheFileNeverReadPastIt) {
    // A data chunk claiming 4 GiB in a small file loads what is there; no
    // allocation follows the claim.
    auto file = s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 8000, 16)).chunk("data", s::pcm16(kValues), 0xFFFFFFFFu);
    Loaded l = load_bytes(file.finish().bytes);
    ASSERT_TRUE(l.ok);
    EXPECT_EQ(l.samples, mono_expected());
    // The same with an odd byte left over: the partial sample is dropped.
    file.raw({0x55});
    l = load_bytes(file.bytes);
    ASSERT_TRUE(l.ok);
    EXPECT_EQ(l.samples, mono_expected());
    // Claiming less than is there reads only the claim.
    auto shorter = s::WavBytes().riff().chunk("fmt ", fmt(1, 1, 8000, 16)).chunk("data", s::pcm16(kValues), 4);
    l = load_bytes(shorter.finish().bytes);
    ASSERT_TRUE(l.ok);
    const auto all = mono_expected();
    EXPECT_EQ(l.samples, std::vector<float>(all.begin(), all.begin() + 2));
}

TEST(TakeLoader, FilesLoadLikeTheirBytesAlsoUnderNonAsciiNames) {
    s::TempDir dir;
    const auto bytes = s::WavBytes().riff().chunk("fmt ", fmt(0xFFFE, 2, 22050, 16, 40, 1))
                           .chunk("data", s::pcm16({5, 7, -9, 11, 13, 15})).finish().bytes;
    const std::string path = dir.file("t\xC3\xA4ke \xE2\x99\xAA.wav");  // "täke ♪.wav"
    ASSERT_TRUE(s::write_file(path, bytes));
    std::vector<float> from_file;
    uint32_t rate = 0;
    ASSERT_TRUE(load_take_wav(path.c_str(), 1, from_file, rate));
    EXPECT_EQ(rate, 22050u);
    EXPECT_EQ(from_file, load_bytes(bytes, 1).samples);
    EXPECT_FALSE(load_take_wav(dir.file("missing.wav").c_str(), 0, from_file, rate));
    EXPECT_FALSE(load_take_wav(nullptr, 0, from_file, rate));
    EXPECT_FALSE(load_take_wav(dir.path().c_str(), 0, from_file, rate));  // a directory
}

// ---- writing ---------------------------------------------------------------

// A float whose product with 32767 (in float) is exactly `target`.
float scaled_to_exactly(float target) {
    float x = target / 32767.0f;
    for (int step = 0; step < 400; ++step) {
        for (float dir : {1.0f, -1.0f}) {
            float y = x;
            for (int i = 0; i < step; ++i) y = std::nextafter(y, dir * 2.0f);
            if (y * 32767.0f == target) return y;
        }
    }
    ADD_FAILURE() << "no float scales to " << target;
    return 0.0f;
}

TEST(TakeWriter, SixteenBitConversionIsExact) {
    const float inf = std::numeric_limits<float>::infinity();
    struct Row { float x; int16_t expected; };
    const Row rows[] = {
        {0.0f, 0},       {1.0f, 32767},     {-1.0f, -32767},  {-1.5f, -32768}, {1.5f, 32767},
        {inf, 32767},    {-inf, -32768},    {std::nanf(""), 32767},           {-std::nanf(""), 32767},
        {0.5f, 16384},   // 16383.5 rounds to even
        {-0.5f, -16384},
        {scaled_to_exactly(0.5f), 0},        {scaled_to_exactly(1.5f), 2},
        {scaled_to_exactly(2.5f), 2},        {scaled_to_exactly(3.5f), 4},
        {scaled_to_exactly(-2.5f), -2},      {scaled_to_exactly(32766.5f), 32766},
        {scaled_to_exactly(-32767.5f), -32768},
    };
    for (const auto& r : rows) EXPECT_EQ(to_pcm16(r.x), r.expected) << r.x;
}

TEST(TakeWriter, WritesTheCanonicalHeaderAndSamples) {
    s::TempDir dir;
    const std::string path = dir.file("take.wav");
    ASSERT_TRUE(s::write_file(path, {0}));  // an old take, so no waiting to move it aside
    const std::vector<float> x = {0.0f, 1.0f, -1.0f, 0.25f, -2.0f};
    ASSERT_TRUE(store_take_wav_safely(path.c_str(), x.data(), x.size(), 44100));
    const auto bytes = s::read_file(path);
    ASSERT_EQ(bytes.size(), 44u + 10u);
    const uint8_t header[44] = {'R', 'I', 'F', 'F', 46, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                16, 0, 0, 0, 1, 0, 1, 0, 0x44, 0xAC, 0, 0, 0x88, 0x58, 1, 0,
                                2, 0, 16, 0, 'd', 'a', 't', 'a', 10, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes.data(), header, 44), 0);
    EXPECT_EQ(s::read_mono16(path), (std::vector<int16_t>{0, 32767, -32767, 8192, -32768}));
    EXPECT_EQ(s::read_file(path).size(), 54u);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
    // Reading it back gives value / 32768.
    std::vector<float> back;
    uint32_t rate = 0;
    ASSERT_TRUE(load_take_wav(path.c_str(), 0, back, rate));
    EXPECT_EQ(back[1], 32767.0f / 32768.0f);
}

TEST(TakeWriter, HeaderSizesWrapIn32Bits) {
    auto h = ws::frame::mono16_wav_header(48000, 0);
    EXPECT_EQ(h[4], 36);
    EXPECT_EQ(h[40], 0);
    h = ws::frame::mono16_wav_header(44100, 0xFFFFFFFEu);  // RIFF size wraps to 34
    EXPECT_EQ(h[4], 34);
    EXPECT_EQ(h[5] | h[6] | h[7], 0);
    EXPECT_EQ(h[40], 0xFE);
}

TEST(TakeWriter, RefusesMissingArgumentsWithoutTouchingTheDisk) {
    s::TempDir dir;
    const std::string path = dir.file("take.wav");
    ASSERT_TRUE(s::write_file(path, {1, 2, 3}));
    const float x = 0.5f;
    EXPECT_FALSE(store_take_wav_safely(nullptr, &x, 1, 44100));
    EXPECT_FALSE(store_take_wav_safely(path.c_str(), nullptr, 1, 44100));
    EXPECT_FALSE(store_take_wav_safely(path.c_str(), &x, 1, 0));
    EXPECT_FALSE(store_take_wav_safely(path.c_str(), &x, 1, -44100));
    EXPECT_EQ(s::read_file(path), (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
}

// ---- the replacement sequence under failure ---------------------------------

// File operations that pass through to the real ones unless a fault says
// otherwise, count the waits instead of sleeping, and check after every
// step that the take is on disk, old or new.
struct Faults {
    int failing_opens = 0;              // the first n opens fail
    bool unwritable_temp = false;       // the temporary opens but refuses writes
    bool read_only_take = false;        // the take cannot be opened for writing
    int failing_moves_aside = 0;        // take -> backup
    int failing_puts_in_place = 0;      // temporary -> take
    bool failing_restore = false;       // backup -> take
    int sleeps = 0;
    std::string take, temp, backup;
    std::vector<uint8_t> old_bytes, new_bytes;
    bool had_old = true;
    int invariant_breaks = 0;

    void check() {
        const bool take_ok = s::exists(take) && (s::read_file(take) == new_bytes ||
                                                 (had_old && s::read_file(take) == old_bytes));
        const bool aside = !s::exists(take) && (!had_old || s::read_file(backup) == old_bytes);
        if (!take_ok && !aside) ++invariant_breaks;
    }
};
Faults* g_faults = nullptr;

std::FILE* fault_open(const char* path, const char* mode) {
    Faults& f = *g_faults;
    if (f.failing_opens > 0) {
        --f.failing_opens;
        return nullptr;
    }
    if (f.unwritable_temp) {
        std::FILE* made = ws::takes::system_file_ops().open(path, mode);
        if (made != nullptr) std::fclose(made);
        return ws::takes::system_file_ops().open(path, "rb");
    }
    return ws::takes::system_file_ops().open(path, mode);
}

bool fault_rename(const char* from, const char* to) {
    Faults& f = *g_faults;
    const std::string a = from, b = to;
    int* budget = nullptr;
    if (a == f.take && b == f.backup) budget = &f.failing_moves_aside;
    if (a == f.temp && b == f.take) budget = &f.failing_puts_in_place;
    if (budget != nullptr && *budget > 0) {
        --*budget;
        return false;
    }
    if (a == f.backup && b == f.take && f.failing_restore) return false;
    const bool ok = ws::takes::system_file_ops().rename(from, to);
    f.check();
    return ok;
}

bool fault_remove(const char* path) {
    const bool ok = ws::takes::system_file_ops().remove(path);
    g_faults->check();
    return ok;
}

bool fault_writable(const char* path) {
    if (g_faults->read_only_take && path == g_faults->take) return false;
    return ws::takes::system_file_ops().writable(path);
}

void fault_sleep(int ms) {
    EXPECT_EQ(ms, 20);
    ++g_faults->sleeps;
}

constexpr ws::takes::FileOps kFaultOps{fault_open, fault_remove, fault_rename, fault_writable, fault_sleep};

TEST(TakeReplacement, TheTakeIsAlwaysOldOrNewAndNoTemporaryStays) {
    constexpr int kAlways = 1000;
    struct Row {
        const char* what;
        bool has_old, stale_backup;
        int failing_opens;
        bool unwritable;
        int failing_moves, failing_puts;
        bool failing_restore, read_only;
        bool result;
        int sleeps;
        const char* on_disk;  // "new", "old", or "old as backup"
    };
    const Row rows[] = {
        {"replace an existing take", true, false, 0, false, 0, 0, false, false, true, 0, "new"},
        {"a stale backup is replaced too", true, true, 0, false, 0, 0, false, false, true, 0, "new"},
        {"no take yet: ten tries to move it aside", false, false, 0, false, 0, 0, false, false, true, 10, "new"},
        {"temporary opens on the tenth try", true, false, 9, false, 0, 0, false, false, true, 9, "new"},
        {"temporary never opens", true, false, kAlways, false, 0, 0, false, false, false, 10, "old"},
        {"temporary cannot be written", true, false, 0, true, 0, 0, false, false, false, 0, "old"},
        {"take moves aside on the last try", true, false, 0, false, 9, 0, false, false, true, 9, "new"},
        {"take never moves aside: not replaced", true, false, 0, false, kAlways, 0, false, false, false, 10, "old"},
        {"directory refuses the new name: old one restored", true, false, 0, false, 0, kAlways, false, false,
         false, 10, "old"},
        {"new one in place on the last try", true, false, 0, false, 0, 9, false, false, true, 9, "new"},
        {"read-only take: not replaced", true, false, 0, false, 0, 0, false, true, false, 10, "old"},
        {"restore fails too: old one stays as the backup", true, false, 0, false, 0, kAlways, true, false,
         false, 10, "old as backup"},
    };
    const std::vector<float> samples = {0.5f, -0.25f, 0.125f};
    std::vector<uint8_t> new_bytes;
    {
        // The expected new file, made by the real writer elsewhere.
        s::TempDir scratch;
        const std::string p = scratch.file("n.wav");
        ASSERT_TRUE(s::write_file(p, {0}));
        ASSERT_TRUE(store_take_wav_safely(p.c_str(), samples.data(), samples.size(), 44100));
        new_bytes = s::read_file(p);
    }
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        s::TempDir dir;
        Faults f;
        f.take = dir.file("take.wav");
        f.temp = f.take + ".tawtmp";
        f.backup = f.take + ".tawbak";
        f.had_old = r.has_old;
        f.old_bytes = s::wav16({0.1f, 0.2f}, 44100);
        f.failing_opens = r.failing_opens;
        f.unwritable_temp = r.unwritable;
        f.failing_moves_aside = r.failing_moves;
        f.failing_puts_in_place = r.failing_puts;
        f.failing_restore = r.failing_restore;
        f.read_only_take = r.read_only;
        f.new_bytes = new_bytes;
        if (r.has_old) {
            ASSERT_TRUE(s::write_file(f.take, f.old_bytes));
        }
        if (r.stale_backup) {
            ASSERT_TRUE(s::write_file(f.backup, {7, 7, 7}));
        }
        g_faults = &f;
        const bool ok = store_take_wav_safely(f.take.c_str(), samples.data(), samples.size(), 44100, kFaultOps);
        g_faults = nullptr;
        EXPECT_EQ(ok, r.result);
        EXPECT_EQ(f.sleeps, r.sleeps);
        EXPECT_EQ(f.invariant_breaks, 0);
        EXPECT_FALSE(s::exists(f.temp));
        const std::string on_disk = r.on_disk;
        if (on_disk == "new") {
            EXPECT_EQ(s::read_file(f.take), f.new_bytes);
            EXPECT_FALSE(s::exists(f.backup));
        } else if (on_disk == "old") {
            EXPECT_EQ(s::read_file(f.take), f.old_bytes);
            EXPECT_FALSE(s::exists(f.backup));
        } else {
            EXPECT_FALSE(s::exists(f.take));
            EXPECT_EQ(s::read_file(f.backup), f.old_bytes);
        }
    }
}

// ---- the same contract against the real operating system ---------------------

// What a refused replacement must leave: the old bytes under the take's
// name and nothing else in the directory.
void expect_refused_and_untouched(const std::string& take, const std::vector<uint8_t>& old_bytes) {
    const std::vector<float> x(100, 0.25f);
    EXPECT_FALSE(store_take_wav_safely(take.c_str(), x.data(), x.size(), 44100));
    EXPECT_EQ(s::read_file(take), old_bytes);
    EXPECT_FALSE(s::exists(take + ".tawtmp"));
    EXPECT_FALSE(s::exists(take + ".tawbak"));
}

#if defined(__linux__)
TEST(TakeReplacement, AnImmutableTakeIsLeftAsItWas) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav");
    const auto old_bytes = s::wav16({0.1f, 0.2f, 0.3f}, 44100);
    ASSERT_TRUE(s::write_file(take, old_bytes));
    if (!s::set_immutable(take, true)) GTEST_SKIP() << "no immutable attribute here";
    expect_refused_and_untouched(take, old_bytes);
    s::set_immutable(take, false);
}

// Root may change any directory, so as root the attempt runs in a child
// process that has given up its privileges first.
TEST(TakeReplacement, ADirectoryThatRefusesChangesLeavesTheTake) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav");
    const auto old_bytes = s::wav16({0.1f, 0.2f, 0.3f}, 44100);
    ASSERT_TRUE(s::write_file(take, old_bytes));
    const std::vector<float> x(100, 0.25f);
    if (::geteuid() != 0) {
        ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
        expect_refused_and_untouched(take, old_bytes);
        ::chmod(dir.path().c_str(), 0755);
        return;
    }
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(::chown(dir.path().c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(::chown(take.c_str(), kNobody, kNobody), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0555), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) ::_exit(2);
        const bool stored = store_take_wav_safely(take.c_str(), x.data(), x.size(), 44100);
        ::_exit(stored ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::chmod(dir.path().c_str(), 0755);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: stored anyway, 2: could not drop privileges";
    EXPECT_EQ(s::read_file(take), old_bytes);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
}

TEST(TakeReplacement, AFullDiskLeavesTheTake) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav");
    const auto old_bytes = s::wav16({0.1f, 0.2f, 0.3f}, 44100);
    ASSERT_TRUE(s::write_file(take, old_bytes));
    // The temporary name leads to a device that is always full.
    if (::symlink("/dev/full", (take + ".tawtmp").c_str()) != 0) GTEST_SKIP() << "no /dev/full";
    expect_refused_and_untouched(take, old_bytes);
}
#endif

#if defined(_WIN32)
TEST(TakeReplacement, AReadOnlyTakeIsLeftAsItWas) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav");
    const auto old_bytes = s::wav16({0.1f, 0.2f, 0.3f}, 44100);
    ASSERT_TRUE(s::write_file(take, old_bytes));
    const std::filesystem::path native(std::u8string(take.begin(), take.end()));
    std::filesystem::permissions(native, std::filesystem::perms::owner_write, std::filesystem::perm_options::remove);
    expect_refused_and_untouched(take, old_bytes);
    std::filesystem::permissions(native, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
}
#endif

}  // namespace
