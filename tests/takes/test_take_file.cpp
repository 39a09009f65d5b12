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

#include <cstdlib>
#if !defined(_WIN32)
#  include <sys/stat.h>
#  include <sys/wait.h>
#  include <unistd.h>
#endif
#if defined(_WIN32)
#  include <filesystem>
#endif

#include "frame/platform.hpp"
#include "files.hpp"
#include "signals.hpp"
#include "takes/take_file.hpp"

namespace {

namespace s = ws::test;
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
    EXPECT_FALSE(load_take_wav(nullptr, 0, from_file, rate));  // missing files and directories: the export tests
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
    const std::vector<float> x = {0.0f, 1.0f, -1.0f, 0.25f, -2.0f};
    ASSERT_TRUE(store_take_wav_safely(path.c_str(), x.data(), x.size(), 44100));
    const auto bytes = s::read_file(path);
    ASSERT_EQ(bytes.size(), 44u + 10u);
    const uint8_t header[44] = {'R', 'I', 'F', 'F', 46, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                16, 0, 0, 0, 1, 0, 1, 0, 0x44, 0xAC, 0, 0, 0x88, 0x58, 1, 0,
                                2, 0, 16, 0, 'd', 'a', 't', 'a', 10, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes.data(), header, 44), 0);
    EXPECT_EQ(s::read_take(path).samples, (std::vector<int16_t>{0, 32767, -32767, 8192, -32768}));
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
}

// ---- the replacement under failure and interruption --------------------------

// Every step of the replacement through a seam that makes one of them fail,
// or ends the process just after it (as a crash or a kill would: buffered
// data is lost), and counts waits instead of sleeping.
enum Step { kCreate, kWrite, kFlush, kSync, kChmod, kReplace, kSyncFolder, kSteps };
const char* const kStepNames[kSteps] = {"create temp", "write", "flush", "sync", "chmod", "replace", "sync folder"};

struct Seam {
    int fail_at = -1, exit_after = -1;
};
Seam g_seam;
const ws::platform::ReplaceSteps& real() { return ws::platform::system_replace_steps(); }

template <class Result, class Call>
Result step(Step s, Result failure, Call&& call) {
    if (g_seam.fail_at == s) return failure;
    const Result r = call();
    if (g_seam.exit_after == s) std::_Exit(0);
    return r;
}

const ws::platform::ReplaceSteps kSeam{
    [](const char* p) { return step<std::FILE*>(kCreate, nullptr, [&] { return real().create_new(p); }); },
    [](std::FILE* f, const void* d, size_t n) { return step(kWrite, false, [&] { return real().write(f, d, n); }); },
    [](std::FILE* f) { return step(kFlush, false, [&] { return real().flush(f); }); },
    [](std::FILE* f) { return step(kSync, false, [&] { return real().sync(f); }); },
    [](std::FILE* f, const char* m) { return step(kChmod, false, [&] { return real().copy_mode(f, m); }); },
    [](const char* a, const char* b) { return step(kReplace, false, [&] { return real().replace(a, b); }); },
    [](const char* p) { return step(kSyncFolder, false, [&] { return real().sync_folder(p); }); },
    [](int) {},
};

const std::vector<float> kNew = {0.5f, -0.25f, 0.125f};
const std::vector<uint8_t> kOld = s::wav16({0.1f, 0.2f}, 44100);

bool store_new(const std::string& path, const ws::platform::ReplaceSteps& steps = real()) {
    return store_take_wav_safely(path.c_str(), kNew.data(), kNew.size(), 44100, steps);
}

std::vector<uint8_t> new_bytes() {
    s::TempDir scratch;
    const std::string p = scratch.file("n.wav");
    EXPECT_TRUE(store_new(p));
    return s::read_file(p);
}

#if !defined(_WIN32)
int mode_of(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}
#endif

// Each step failing, and the process ending after each step: the take is
// always the old file or the new one, complete; only a kill before the
// replace leaves the temporary, and the next call copes with it.
TEST(TakeReplacement, FaultMatrix) {
    const auto fresh = new_bytes();
    for (int kill = 0; kill < 2; ++kill) {
        for (int at = kCreate; at < kSteps; ++at) {
            const std::string cell = std::string(kill ? "killed after " : "failing ") + kStepNames[at];
            SCOPED_TRACE(cell);
            s::TempDir dir;
            const std::string take = dir.file("take.wav"), temp = take + ".tawtmp";
            ASSERT_TRUE(s::write_file(take, kOld));
            bool ok = false;
            if (!kill) {
                g_seam = Seam{at, -1};
                ok = store_new(take, kSeam);
                g_seam = Seam{};
            } else {
#if defined(_WIN32)
                continue;  // no fork
#else
                ASSERT_EQ(::chmod(take.c_str(), 0640), 0);
                const pid_t child = ::fork();
                ASSERT_GE(child, 0);
                if (child == 0) {
                    g_seam = Seam{-1, at};
                    store_new(take, kSeam);
                    std::_Exit(3);  // the step never came
                }
                int status = 0;
                ASSERT_EQ(::waitpid(child, &status, 0), child);
                ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
                ok = true;
#endif
            }
            const bool replaced = kill ? at >= kReplace : at == kSyncFolder;
            EXPECT_EQ(ok, replaced || kill);
            const auto now = s::read_file(take);
            EXPECT_EQ(now, replaced ? fresh : kOld);
            const bool temp_left = kill && at < kReplace;
            EXPECT_EQ(s::exists(temp), temp_left);
            if (kill) {
                EXPECT_TRUE(store_new(take)) << "after the kill";
                EXPECT_EQ(s::read_file(take), fresh);
#if !defined(_WIN32)
                EXPECT_EQ(mode_of(take), 0640);
#endif
            }
            EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
            std::printf("  %-26s -> %s, %s\n", cell.c_str(), now == fresh ? "new take" : now == kOld ? "old take" : "DAMAGED",
                        temp_left ? "temporary left, cleared by the next call" : "no temporary");
        }
    }
}

#if !defined(_WIN32)
// What somebody else may have put at the temporary's name is never written
// through, removed or followed; a leftover of ours is cleared.
TEST(TakeReplacement, WhateverIsAtTheTemporaryName) {
    struct Row { const char* what; int (*plant)(const std::string& temp, const std::string& dir); bool stored; };
    const Row rows[] = {
        {"link to another file", [](const std::string& t, const std::string& d) { return ::symlink((d + "/victim").c_str(), t.c_str()); }, false},
        {"link to nowhere", [](const std::string& t, const std::string& d) { return ::symlink((d + "/nowhere").c_str(), t.c_str()); }, false},
        {"second name of another file", [](const std::string& t, const std::string& d) { return ::link((d + "/victim").c_str(), t.c_str()); }, false},
        {"a foreign file", [](const std::string& t, const std::string&) { return s::write_file(t, {'m', 'i', 'n', 'e'}) ? 0 : -1; }, false},
        {"a directory", [](const std::string& t, const std::string&) { return ::mkdir(t.c_str(), 0755); }, false},
        {"a half-written temporary of ours", [](const std::string& t, const std::string&) { return s::write_file(t, std::vector<uint8_t>(kOld.begin(), kOld.begin() + 30)) ? 0 : -1; }, true},
        {"an empty temporary of ours", [](const std::string& t, const std::string&) { return s::write_file(t, {}) ? 0 : -1; }, true},
    };
    const auto fresh = new_bytes();
    const std::vector<uint8_t> victim = {'v', 'i', 'c', 't', 'i', 'm'};
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        s::TempDir dir;
        const std::string take = dir.file("take.wav"), temp = take + ".tawtmp";
        ASSERT_TRUE(s::write_file(take, kOld));
        ASSERT_TRUE(s::write_file(dir.file("victim"), victim));
        ASSERT_EQ(r.plant(temp, dir.path()), 0);
        const auto entries = dir.list();
        EXPECT_EQ(store_new(take), r.stored);
        EXPECT_EQ(s::read_file(take), r.stored ? fresh : kOld);
        EXPECT_EQ(s::read_file(dir.file("victim")), victim);
        EXPECT_FALSE(s::exists(dir.file("nowhere")));
        if (r.stored) {
            EXPECT_EQ(dir.list(), (std::vector<std::string>{"take.wav", "victim"}));
        } else {
            EXPECT_EQ(dir.list(), entries);
        }
    }
}

// A take that is a link stays one: the file it leads to is replaced, with
// its mode.
TEST(TakeReplacement, ALinkedTakeIsReplacedAtItsTarget) {
    s::TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("real").c_str(), 0755), 0);
    const std::string target = dir.file("real/take.wav"), link = dir.file("take.wav");
    ASSERT_TRUE(s::write_file(target, kOld));
    ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
    ASSERT_EQ(::symlink("real/take.wav", link.c_str()), 0);
    ASSERT_TRUE(store_new(link));
    struct stat st {};
    ASSERT_EQ(::lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(s::read_file(target), new_bytes());
    EXPECT_EQ(mode_of(target), 0600);
    EXPECT_EQ(dir.list(), (std::vector<std::string>{"real", "take.wav"}));
}
#endif

// A take its owner protected is left as it was: read-only on Windows,
// immutable on Linux (read-only modes do not stop root there).
TEST(TakeReplacement, AProtectedTakeIsLeftAsItWas) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav");
    ASSERT_TRUE(s::write_file(take, kOld));
#if defined(_WIN32)
    const std::filesystem::path native(std::u8string(take.begin(), take.end()));
    std::filesystem::permissions(native, std::filesystem::perms::owner_write, std::filesystem::perm_options::remove);
#else
    if (!s::set_immutable(take, true)) GTEST_SKIP() << "no immutable attribute here";
#endif
    EXPECT_FALSE(store_new(take));
    EXPECT_EQ(s::read_file(take), kOld);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
#if defined(_WIN32)
    std::filesystem::permissions(native, std::filesystem::perms::owner_write, std::filesystem::perm_options::add);
#else
    s::set_immutable(take, false);
#endif
}

TEST(TakeReplacement, ANewTakeAndAStrandedBackup) {
    s::TempDir dir;
    const std::string take = dir.file("take.wav"), backup = take + ".tawbak";
    // With no file yet, the new one simply appears.
    ASSERT_TRUE(store_new(take));
    EXPECT_EQ(s::read_file(take), new_bytes());
    // A backup is never touched while the take is there...
    ASSERT_TRUE(s::write_file(backup, kOld));
    EXPECT_FALSE(ws::takes::restore_stranded_backup(take.c_str()));
    ASSERT_TRUE(store_new(take));
    EXPECT_EQ(s::read_file(backup), kOld);
    // ...and takes the take's name back once it is missing.
    ASSERT_TRUE(ws::platform::remove_file(take.c_str()));
    EXPECT_TRUE(ws::takes::restore_stranded_backup(take.c_str()));
    EXPECT_EQ(s::read_file(take), kOld);
    EXPECT_EQ(dir.list(), std::vector<std::string>{"take.wav"});
}

}  // namespace
