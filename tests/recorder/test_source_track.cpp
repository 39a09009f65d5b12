// The backing-track reader: which files are taken, how long they come out
// at the device rate, and the memory guard. What the conversion does to the
// sound is the resampler's own test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "recorder/source_track.hpp"
#include "files.hpp"
#include "signals.hpp"

namespace {

using ws::recorder::decode_source_wav;
using ws::recorder::load_source_track;
using ws::recorder::LoadResult;
using ws::recorder::SourceTrack;
using namespace ws::test;

struct FileCase {
    const char* label;
    std::vector<uint8_t> bytes;
    bool accepted;
    int64_t frames;  // when accepted
};

// The backing's own rules; the chunk walk it shares with the take loader
// (order, padding, repeated and missing chunks, sizes past the end) is
// proven by the take loader's tables.
std::vector<FileCase> file_cases() {
    const std::vector<int16_t> four = {100, -100, 200, -200};
    std::vector<FileCase> rows;
    rows.push_back({"16-bit stereo 44100", pcm16_wav(2, 44100, four), true, 2});
    rows.push_back({"16-bit mono 8000", pcm16_wav(1, 8000, four), true, 23});  // ceil(4 * 5.5125)
    rows.push_back({"7999 Hz", pcm16_wav(1, 7999, four), false, 0});
    rows.push_back({"24-bit", WavBytes().riff().fmt(1, 1, 44100, 24).data(four).build(), false, 0});
    rows.push_back({"three channels", WavBytes().riff().fmt(1, 3, 44100, 16).data(four).build(), false, 0});
    // Any tag with 16 bits is read as integer PCM.
    rows.push_back({"float tag, 16 bits", WavBytes().riff().fmt(3, 1, 44100, 16).data(four).build(), true, 4});
    rows.push_back({"extensible fmt body", WavBytes().riff().fmt(0xFFFE, 2, 44100, 16, 40).data(four).build(), true, 2});
    {
        // The fmt chunk's 16 bytes do not fit: it is not read at all.
        std::vector<uint8_t> b = WavBytes().riff().data(four).build();
        const std::vector<uint8_t> cut = {'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0, 0x44, 0xAC, 0, 0, 0};
        b.insert(b.end(), cut.begin(), cut.end());
        rows.push_back({"fmt cut short at the end", b, false, 0});
    }
    rows.push_back({"45 bytes: one byte of data", WavBytes().riff().fmt(1, 1, 44100, 16).chunk("data", {7}, 1).build(),
                    true, 0});
    rows.push_back({"44 bytes: a valid empty WAV", pcm16_wav(1, 44100, {}), false, 0});
    return rows;
}

TEST(SourceTrack, AcceptsOnlyItsSubsetOfWav) {
    TempDir dir;
    for (const FileCase& c : file_cases()) {
        SCOPED_TRACE(c.label);
        const std::string path = dir.file("backing.wav");
        write_file(path, c.bytes);
        SourceTrack t;
        t.samples = {1.0f, 2.0f};  // must be emptied whatever happens
        t.frames = 1;
        EXPECT_EQ(load_source_track(path.c_str(), 44100, t) == LoadResult::ok, c.accepted);
        EXPECT_EQ(t.frames, c.frames);
        EXPECT_EQ(t.samples.size(), static_cast<size_t>(2 * t.frames));
    }
}

TEST(SourceTrack, PathsAndTheSizeWindowOfTheFile) {
    SourceTrack t;
    EXPECT_EQ(load_source_track(nullptr, 48000, t), LoadResult::ok);  // no track wanted
    EXPECT_EQ(load_source_track("", 48000, t), LoadResult::ok);
    EXPECT_EQ(t.frames, 0);
    TempDir dir;
    EXPECT_EQ(load_source_track(dir.file("nothing-here.wav").c_str(), 48000, t), LoadResult::unreadable);
    EXPECT_EQ(load_source_track(dir.path().c_str(), 48000, t), LoadResult::unreadable);  // a directory
    const std::string name = dir.file("Begleitung \xc3\xa4\xc3\xb6\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac.wav");
    write_file(name, pcm16_wav(1, 44100, {1000, 2000}));
    ASSERT_EQ(load_source_track(name.c_str(), 44100, t), LoadResult::ok);
    EXPECT_EQ(t.frames, 2);

    // 44 bytes pass the format checks in memory but not the file size test.
    const std::vector<uint8_t> empty = pcm16_wav(1, 44100, {});
    EXPECT_EQ(decode_source_wav(empty.data(), empty.size(), 44100, t), LoadResult::ok);
    // One byte over 700 MiB, as a sparse file: refused before anything is read.
    const std::string big = dir.file("big.wav");
    write_file(big, pcm16_wav(1, 44100, {1, 2, 3}));
    std::filesystem::resize_file(native(big), 734003201);
    EXPECT_EQ(load_source_track(big.c_str(), 44100, t), LoadResult::unreadable);
}

TEST(SourceTrack, ABackingThatWouldPassTwoGigabytesAtTheDeviceRateIsRefused) {
    // 100 MB of 8000 Hz mono is 50 million frames: 300 million at 48 kHz,
    // 2.4 GB as stereo floats. Its header states the size; the samples are
    // a sparse file's zeros.
    TempDir dir;
    const std::string path = dir.file("huge.wav");
    std::vector<uint8_t> b = pcm16_wav(1, 8000, {});
    const uint32_t data = 100'000'000;
    for (int i = 0; i < 4; ++i) {
        b[40 + i] = static_cast<uint8_t>(data >> (8 * i));
        b[4 + i] = static_cast<uint8_t>((data + 36) >> (8 * i));
    }
    write_file(path, b);
    std::filesystem::resize_file(native(path), 44 + data);
    SourceTrack t;
    EXPECT_EQ(load_source_track(path.c_str(), 48000, t), LoadResult::too_large);
    EXPECT_TRUE(t.samples.empty());
    EXPECT_EQ(t.samples.capacity(), 0u);
}

TEST(SourceTrack, TheTrackComesOutAtTheDeviceRate) {
    struct Row { int channels; uint32_t rate, device; size_t frames_in; int64_t frames_out; };
    const Row rows[] = {
        {2, 44100, 44100, 1000, 1000}, {1, 22050, 44100, 1000, 2000}, {2, 48000, 44100, 48000, 44100},
        {2, 44100, 48000, 44100, 48000}, {1, 8000, 96000, 800, 9600}, {2, 48000, 44100, 1001, 920},  // ceil(919.67)
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.rate << " -> " << r.device);
        std::vector<int16_t> s(r.frames_in * r.channels);
        for (size_t i = 0; i < r.frames_in; ++i) {
            for (int c = 0; c < r.channels; ++c) {
                s[i * r.channels + c] = static_cast<int16_t>((c == 0 ? 8000 : -8000) *
                                                             std::sin(2 * std::numbers::pi * 440.0 * static_cast<double>(i) / r.rate));
            }
        }
        const std::vector<uint8_t> b = pcm16_wav(static_cast<uint16_t>(r.channels), r.rate, s);
        SourceTrack t;
        ASSERT_EQ(decode_source_wav(b.data(), b.size(), r.device, t), LoadResult::ok);
        ASSERT_EQ(t.frames, r.frames_out);
        // A mono file plays on both channels; a stereo one keeps its sides.
        // At the file's own rate the samples are copied, s / 32768.
        const size_t mid = static_cast<size_t>(t.frames / 2);
        if (r.channels == 1) {
            EXPECT_EQ(t.samples[2 * mid], t.samples[2 * mid + 1]);
        } else {
            EXPECT_NEAR(t.samples[2 * mid], -t.samples[2 * mid + 1], 1e-4);
        }
        if (r.rate == r.device) {
            for (size_t i = 0; i < s.size() && r.channels == 2; ++i) ASSERT_EQ(t.samples[i], s[i] / 32768.0f) << i;
        }
    }
}

}  // namespace
