// The backing-track reader: which files are taken, and what the conversion
// to 44100 Hz stereo makes of them, against values worked out from the
// interpolation formula.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "recorder/source_track.hpp"
#include "recorder_files.hpp"

namespace {

using ws::recorder::decode_source_wav;
using ws::recorder::load_source_track;
using ws::recorder::SourceTrack;
using namespace ws::test::recorder;

std::vector<uint8_t> bytes_of(const char* text) {
    return std::vector<uint8_t>(text, text + std::strlen(text));
}

struct FileCase {
    const char* label;
    std::vector<uint8_t> bytes;
    bool accepted;
    int64_t frames;  // when accepted
};

std::vector<FileCase> file_cases() {
    const std::vector<int16_t> four = {100, -100, 200, -200};
    std::vector<FileCase> rows;
    rows.push_back({"16-bit stereo 44100", pcm16_wav(2, 44100, four), true, 2});
    rows.push_back({"16-bit mono 8000", pcm16_wav(1, 8000, four), true, 22});  // trunc(4 * 5.5125)
    rows.push_back({"7999 Hz", pcm16_wav(1, 7999, four), false, 0});
    rows.push_back({"24-bit", WavBuilder().fmt(1, 1, 44100, 24).data(four).bytes(), false, 0});
    rows.push_back({"8-bit", WavBuilder().fmt(1, 1, 44100, 8).data(four).bytes(), false, 0});
    rows.push_back({"three channels", WavBuilder().fmt(1, 3, 44100, 16).data(four).bytes(), false, 0});
    rows.push_back({"no channels", WavBuilder().fmt(1, 0, 44100, 16).data(four).bytes(), false, 0});
    rows.push_back({"no data chunk", WavBuilder().fmt(1, 1, 44100, 16).chunk("LIST", {1, 2, 3, 4}).bytes(), false, 0});
    rows.push_back({"no fmt chunk", WavBuilder().chunk("junk", {0, 0, 0, 0, 0, 0, 0, 0}).data(four).bytes(), false, 0});
    // Any tag with 16 bits is read as integer PCM.
    rows.push_back({"float tag, 16 bits", WavBuilder().fmt(3, 1, 44100, 16).data(four).bytes(), true, 4});
    rows.push_back({"extensible fmt body", WavBuilder().fmt(0xFFFE, 2, 44100, 16, 40).data(four).bytes(), true, 2});
    // A later fmt replaces an earlier one.
    rows.push_back({"fmt 24 then fmt 16",
                    WavBuilder().fmt(1, 1, 44100, 24).fmt(1, 1, 44100, 16).data(four).bytes(), true, 4});
    rows.push_back({"fmt 16 then fmt 24",
                    WavBuilder().fmt(1, 1, 44100, 16).fmt(1, 1, 44100, 24).data(four).bytes(), false, 0});
    rows.push_back({"data before fmt", WavBuilder().data(four).fmt(1, 1, 44100, 16).bytes(), true, 4});
    // Three odd-sized chunks, each with its pad byte, before the data.
    rows.push_back({"odd-sized chunks before data",
                    WavBuilder().fmt(1, 1, 44100, 16).chunk("LIST", {1, 2, 3}).chunk("abcd", {9})
                        .chunk("efgh", {1, 2, 3, 4, 5}).data(four).bytes(), true, 4});
    // An odd chunk written without its pad byte throws the walk off: the
    // data header is then read one byte late and not found.
    rows.push_back({"odd chunk missing its pad",
                    WavBuilder().fmt(1, 1, 44100, 16).chunk("LIST", {1, 2, 3}, 3, false).data(four).bytes(),
                    false, 0});
    {
        // The fmt chunk's 16 bytes do not fit: it is not read at all.
        std::vector<uint8_t> b = WavBuilder().data(four).bytes();
        const std::vector<uint8_t> cut = {'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x44, 0xAC, 0, 0, 0};
        b.insert(b.end(), cut.begin(), cut.end());
        rows.push_back({"fmt cut short at the end", b, false, 0});
    }
    {
        // Data declared longer than the file: read up to the end (3 samples).
        std::vector<uint8_t> b = WavBuilder().fmt(1, 1, 44100, 16).chunk("data", {1, 0, 2, 0, 3, 0}, 1000).bytes();
        rows.push_back({"data longer than the file", b, true, 3});
    }
    {
        // A trailing odd byte of data makes no sample.
        std::vector<uint8_t> b = WavBuilder().fmt(1, 2, 44100, 16).chunk("data", {1, 0, 2, 0, 3, 0, 4, 0, 5}).bytes();
        rows.push_back({"half a frame at the end", b, true, 2});
    }
    {
        std::vector<uint8_t> b = pcm16_wav(1, 44100, four);
        b[3] = 'X';
        rows.push_back({"not RIFF", b, false, 0});
    }
    {
        std::vector<uint8_t> b = pcm16_wav(1, 44100, four);
        b[8] = 'A';
        rows.push_back({"not WAVE", b, false, 0});
    }
    rows.push_back({"45 bytes: one byte of data", WavBuilder().fmt(1, 1, 44100, 16).chunk("data", {7}, 1, false).bytes(),
                    true, 0});
    rows.push_back({"44 bytes: a valid empty WAV", pcm16_wav(1, 44100, {}), false, 0});
    rows.push_back({"text file", bytes_of("this is not a wav file at all, just some text"), false, 0});
    return rows;
}

TEST(SourceTrack, AcceptsOnlyItsSubsetOfWav) {
    ScratchDir dir("source");
    for (const FileCase& c : file_cases()) {
        SCOPED_TRACE(c.label);
        const std::string path = dir.file("backing.wav");
        write_bytes(path, c.bytes);
        SourceTrack t;
        t.samples = {1.0f, 2.0f};  // must be emptied whatever happens
        t.frames = 1;
        EXPECT_EQ(load_source_track(path.c_str(), t), c.accepted);
        EXPECT_EQ(t.frames, c.frames);
        EXPECT_EQ(t.samples.size(), static_cast<size_t>(2 * t.frames));
    }
}

TEST(SourceTrack, TheSizeWindowIsTestedOnTheFileNotTheContent) {
    // 44 bytes pass the format checks in memory but not the file size test.
    const std::vector<uint8_t> empty = pcm16_wav(1, 44100, {});
    ASSERT_EQ(empty.size(), 44u);
    SourceTrack t;
    EXPECT_TRUE(decode_source_wav(empty.data(), empty.size(), t));
    EXPECT_EQ(t.frames, 0);

    ScratchDir dir("size");
    const std::string path = dir.file("big.wav");
    // One byte over 700 MiB, as a sparse file: refused before anything is read.
    write_bytes(path, pcm16_wav(1, 44100, {1, 2, 3}));
    std::filesystem::resize_file(u8path(path), 734003201);
    EXPECT_FALSE(load_source_track(path.c_str(), t));
    EXPECT_EQ(t.frames, 0);
}

TEST(SourceTrack, NoPathMeansNoTrackAndAMissingFileFails) {
    SourceTrack t;
    EXPECT_TRUE(load_source_track(nullptr, t));
    EXPECT_TRUE(load_source_track("", t));
    EXPECT_EQ(t.frames, 0);
    ScratchDir dir("missing");
    EXPECT_FALSE(load_source_track(dir.file("nothing-here.wav").c_str(), t));
    EXPECT_FALSE(load_source_track(utf8(dir.path()).c_str(), t));  // a directory
}

TEST(SourceTrack, ANonAsciiPathIsOpenedByItsName) {
    ScratchDir dir("name");
    const std::string path = dir.file("Begleitung \xc3\xa4\xc3\xb6\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac.wav");
    write_bytes(path, pcm16_wav(1, 44100, {1000, 2000}));
    SourceTrack t;
    ASSERT_TRUE(load_source_track(path.c_str(), t));
    EXPECT_EQ(t.frames, 2);
}

TEST(SourceTrack, StereoAt44100IsCopiedSampleForSample) {
    const std::vector<int16_t> s = {0, -1, 32767, -32768, 12345, -54, 1, 2};
    const std::vector<uint8_t> b = pcm16_wav(2, 44100, s);
    SourceTrack t;
    ASSERT_TRUE(decode_source_wav(b.data(), b.size(), t));
    ASSERT_EQ(t.frames, 4);
    for (size_t i = 0; i < s.size(); ++i) EXPECT_EQ(t.samples[i], static_cast<float>(s[i] / 32768.0)) << i;
}

TEST(SourceTrack, Mono22050DoublesWithMidpointsOnBothChannels) {
    const std::vector<uint8_t> b = pcm16_wav(1, 22050, {0, 16384, -16384, 32767});
    SourceTrack t;
    ASSERT_TRUE(decode_source_wav(b.data(), b.size(), t));
    ASSERT_EQ(t.frames, 8);
    // x = j / 2: whole positions copy, half positions take the midpoint, the
    // last frame has no right neighbour and repeats.
    const float expected[8] = {0.0f, 0.25f, 0.5f, 0.0f, -0.5f, 16383.0f / 65536.0f, 32767.0f / 32768.0f,
                               32767.0f / 32768.0f};
    for (int j = 0; j < 8; ++j) {
        EXPECT_EQ(t.samples[2 * j], expected[j]) << j;
        EXPECT_EQ(t.samples[2 * j + 1], expected[j]) << j;
    }
}

// value = s[i0]/32768 + (s[i1]/32768 - s[i0]/32768) * f with x = j / r,
// i0 = trunc(x), f = x - i0, i1 = min(i0 + 1, n - 1).
float formula(const std::vector<int16_t>& s, int channels, int c, double r, uint64_t j) {
    const uint64_t n = s.size() / channels;
    const double x = static_cast<double>(j) / r;
    const uint64_t i0 = static_cast<uint64_t>(x);
    const double f = x - static_cast<double>(i0);
    const uint64_t i1 = std::min(i0 + 1, n - 1);
    const double a = s[i0 * channels + c] / 32768.0;
    const double b = s[i1 * channels + c] / 32768.0;
    return static_cast<float>(a + (b - a) * f);
}

struct RateCase {
    int channels;
    uint32_t rate;
    size_t frames_in;
    int64_t frames_out;
};

class SourceTrackRates : public ::testing::TestWithParam<RateCase> {};

TEST_P(SourceTrackRates, EveryFrameFollowsTheInterpolationFormula) {
    const RateCase p = GetParam();
    const std::vector<int16_t> s = noise16(p.frames_in * p.channels, 30000, p.rate);
    const std::vector<uint8_t> b = pcm16_wav(static_cast<uint16_t>(p.channels), p.rate, s);
    SourceTrack t;
    ASSERT_TRUE(decode_source_wav(b.data(), b.size(), t));
    ASSERT_EQ(t.frames, p.frames_out);
    const double r = 44100.0 / p.rate;
    int mismatches = 0;
    for (int64_t j = 0; j < t.frames; ++j) {
        for (int c = 0; c < 2; ++c) {
            const float want = formula(s, p.channels, p.channels == 2 ? c : 0, r, static_cast<uint64_t>(j));
            if (t.samples[2 * j + c] != want && ++mismatches < 5) {
                ADD_FAILURE() << "frame " << j << " channel " << c << ": " << t.samples[2 * j + c] << " != " << want;
            }
        }
    }
    EXPECT_EQ(mismatches, 0);
}

INSTANTIATE_TEST_SUITE_P(Rates, SourceTrackRates,
                         ::testing::Values(RateCase{1, 22050, 1000, 2000},
                                           RateCase{2, 48000, 48000, 44100},  // truncated product, exactly
                                           RateCase{2, 48000, 1001, 919},     // 1001 * 0.91875 = 919.67
                                           RateCase{1, 8000, 800, 4410},
                                           RateCase{2, 96000, 960, 441},
                                           RateCase{1, 44100, 300, 300},
                                           RateCase{2, 11025, 5, 20}));

TEST(SourceTrack, ResamplingAt48000HitsTheKnownPositions) {
    // Frame j of the output sits at 48000/44100 * j input frames: j = 441
    // lands exactly on input frame 480, j = 1 between frames 1 and 2.
    std::vector<int16_t> ramp(2 * 1000);
    for (int i = 0; i < 1000; ++i) {
        ramp[2 * i] = static_cast<int16_t>(16 * i);
        ramp[2 * i + 1] = static_cast<int16_t>(-16 * i);
    }
    const std::vector<uint8_t> b = pcm16_wav(2, 48000, ramp);
    SourceTrack t;
    ASSERT_TRUE(decode_source_wav(b.data(), b.size(), t));
    EXPECT_FLOAT_EQ(t.samples[2 * 441], static_cast<float>(16 * 480 / 32768.0));
    EXPECT_FLOAT_EQ(t.samples[2 * 441 + 1], static_cast<float>(-16 * 480 / 32768.0));
    // On a ramp the interpolation is the ramp itself: 16 * j * 48000/44100.
    EXPECT_NEAR(t.samples[2 * 1], 16.0 * 48000.0 / 44100.0 / 32768.0, 1e-7);
}

}  // namespace
