// The command-line program's audio-file reading, on files made of arbitrary
// bytes: the header inspection, the decoders (WAV, FLAC, MP3) behind the
// program's own checks, and what the commands do next: `tune` and `report`
// read blocks at 8..384 kHz (other rates converted to 48 kHz), the take
// commands convert to the 16-bit WAV the take tools read. Bit 0 of the
// first byte chooses which, bit 1 whether the file arrives as a pipe does
// (on stdin, read whole, decoded from memory). A damaged file may end only in an InputError (one line,
// exit status 3); any other exception escapes and aborts, and so does a
// broken promise: a rate outside the accepted range, a block longer than
// asked, a converted copy the take tools would not read as it is.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio_files.hpp"
#include "cli.hpp"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_audio_files: broken invariant: %s\n", what);
    std::abort();
}

// Enough to cover every decoder path without letting one input that
// expands a thousandfold (a FLAC of constant blocks) run for seconds.
constexpr size_t kMaxFrames = size_t{1} << 20;

void read_blocks(cli::AudioReader& reader) {
    std::vector<float> audio;
    size_t total = 0;
    for (size_t got; total < kMaxFrames && (got = reader.read(audio, 16384)) > 0; total += got) {
        check(got <= 16384, "a block longer than asked");
        check(audio.size() == (total + got) * reader.channels(), "samples short of the frames");
    }
}

void convert(cli::AudioReader& reader, const std::string& beside) {
    cli::TempFile copy(beside);
    const uint64_t frames = cli::convert_to_pcm16(reader, copy);
    if (frames == 0) return;  // the program says "no audio in the file"
    const cli::FileFacts facts = cli::inspect_file(copy.path());
    const uint32_t channels = reader.channels() <= 2 ? reader.channels() : 1;
    check(cli::take_tools_read(facts), "a converted copy the take tools do not read directly");
    check(facts.rate == reader.sample_rate() && facts.channels == channels, "the copy's format");
    check(facts.data_bytes == frames * channels * 2, "the copy's length");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    static const std::string dir = [] {
        std::string d = "/tmp/fuzz-audio-files-" + std::to_string(::getpid());
        ::mkdir(d.c_str(), 0700);
        return d;
    }();
    const std::string path = dir + "/input";
    std::FILE* f = std::fopen(path.c_str(), "wb");
    check(f != nullptr, "scratch file");
    if (size > 1) std::fwrite(data + 1, 1, size - 1, f);
    std::fclose(f);

    // What a pipe gets (the bytes only) must say what the file says.
    const cli::FileFacts from_bytes = cli::inspect_bytes(data + 1, size - 1, size - 1);
    const cli::FileFacts from_file = cli::inspect_file(path);
    check(size == 1 || (from_bytes.encoding == from_file.encoding && from_bytes.wav == from_file.wav &&
                        from_bytes.warning == from_file.warning),
          "the file and its bytes inspected differently");

    const bool take_tools = (data[0] & 1) != 0;
    const bool piped = (data[0] & 2) != 0;
    if (piped) check(std::freopen(path.c_str(), "rb", stdin) != nullptr, "the file as stdin");
    try {
        cli::AudioReader reader(piped ? "-" : path, take_tools ? 1 : 8000, take_tools ? 0xFFFFFFFFu : 384000,
                                take_tools ? 44100 : 48000);
        const uint32_t file_rate = reader.file_sample_rate();
        check(file_rate >= cli::kLowestFileRate && file_rate <= cli::kHighestFileRate, "file rate");
        check(reader.channels() >= 1, "channels");
        check(take_tools ? reader.sample_rate() == file_rate
                         : reader.sample_rate() == (file_rate >= 8000 && file_rate <= 384000 ? file_rate : 48000),
              "delivered rate");
        if (take_tools) {
            convert(reader, path);
        } else {
            read_blocks(reader);
        }
    } catch (const cli::InputError&) {
        // The one way a damaged file may end: a message and status 3.
    }
    return 0;
}
