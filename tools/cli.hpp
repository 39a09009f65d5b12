// SPDX-License-Identifier: MIT
// Shared pieces of the woodshed command-line program: the command table, a
// small option parser, audio decoding, the Ctrl-C flag and note names.
// Everything reaches the library through its public C headers only.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

// Exit statuses the whole program agrees on; every command's help lists the
// ones it uses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;      // no result (e.g. no trustworthy delay)
inline constexpr int kExitUsage = 2;        // bad command line
inline constexpr int kExitInput = 3;        // an input file unreadable or unusable
inline constexpr int kExitDevice = 4;       // no usable audio device or back end
inline constexpr int kExitOutput = 5;       // output not written (also a full stdout)
inline constexpr int kExitInterrupted = 130;  // Ctrl-C, SIGTERM or SIGHUP

// A bad command line: reported as one line, exit status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Anything else that stops a command: one line, exit status 1 unless one of
// the kinds below says more.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct InputError : Failure {  // status 3; the text starts with the file's name
    using Failure::Failure;
};
struct DeviceError : Failure {  // status 4
    using Failure::Failure;
};
struct OutputError : Failure {  // status 5; the text starts with the file's name
    using Failure::Failure;
};

// "FILE: reason" as an input or output error; "-" reads as "stdin"/"stdout".
[[noreturn]] void input_error(const std::string& path, const std::string& reason);
[[noreturn]] void output_error(const std::string& path, const std::string& reason);

// ---- commands ----------------------------------------------------------

struct Command {
    std::string_view name;
    std::string_view synopsis;  // e.g. "tune FILE [options]"
    std::string_view summary;   // one line for the overview
    const char* help;           // the full text of `woodshed CMD --help`
    int (*run)(std::span<const std::string> args);  // args exclude the command name
};

// Defined by each cmd_*.cpp; main.cpp lists them.
extern const Command kDemoCommand;
extern const Command kTuneCommand;
extern const Command kToneCommand;
extern const Command kClickCommand;
extern const Command kDevicesCommand;
extern const Command kRecordCommand;
extern const Command kAlignCommand;
extern const Command kCleanCommand;
extern const Command kReportCommand;

// ---- options -----------------------------------------------------------

struct OptionSpec {
    std::string_view name;  // without the leading dashes
    bool takes_value;
};

// Parses "--name value", "--name=value", flags, "--" and positionals.
// --help and -h are always accepted. A later occurrence of an option
// replaces an earlier one, as users expect when they append to a command.
class Options {
public:
    Options(std::string_view command, std::span<const std::string> args,
            std::span<const OptionSpec> specs);

    bool help() const { return help_; }
    bool flag(std::string_view name) const;
    std::optional<std::string> value(std::string_view name) const;
    const std::vector<std::string>& positionals() const { return positionals_; }

    // Exactly `count` positionals or a UsageError naming what is missing.
    void expect_positionals(size_t count, std::string_view what) const;

private:
    std::string command_;
    bool help_ = false;
    std::vector<std::pair<std::string, std::string>> values_;
    std::vector<std::string> flags_;
    std::vector<std::string> positionals_;
};

// A finite number in [lo, hi]; otherwise a UsageError naming the option.
double parse_number(std::string_view option, std::string_view text, double lo, double hi);

// "LOW..HIGH" as two numbers.
std::pair<double, double> parse_range(std::string_view option, std::string_view text);

// ---- notes -------------------------------------------------------------

// MIDI note from a name (A4, C#3, Bb3, e2, C-1) or a number 0..127; nullopt
// when the text is neither or lies outside 0..127.
std::optional<int> note_from_text(std::string_view text);

// note_from_text for an option's value; a UsageError naming the option when
// the text is not a note.
int parse_note(std::string_view option, std::string_view text);

// Sharps spelling with octave, MIDI 69 = "A4", 0 = "C-1"; "--" for -1 (or any
// value outside 0..127).
std::string note_name(int midi);

// A tuner reading's state as a word: "silent", "holding", "pitched", "in tune".
const char* state_word(uint32_t state);

// Equal-tempered frequency of a MIDI note at the given A4.
double note_frequency(int midi, double a4_hz);

// ---- audio input -------------------------------------------------------

// Sample rates a file may declare; anything else is a damaged header (and a
// rate of 1 Hz would make a small file decode into gigabytes).
inline constexpr uint32_t kLowestFileRate = 1000;
inline constexpr uint32_t kHighestFileRate = 768000;

// Streaming decoder for WAV, FLAC and MP3, delivering interleaved 32-bit
// floats at the file's own channel count. When the file's rate is outside
// `min_rate`..`max_rate` the audio is resampled to `fallback_rate`. "-" reads
// standard input (whole, so it need not be seekable). Failures are
// InputErrors naming the file.
class AudioReader {
public:
    AudioReader(const std::string& path, uint32_t min_rate, uint32_t max_rate,
                uint32_t fallback_rate);
    ~AudioReader();
    AudioReader(const AudioReader&) = delete;
    AudioReader& operator=(const AudioReader&) = delete;

    uint32_t channels() const { return channels_; }
    uint32_t sample_rate() const { return sample_rate_; }        // of the delivered audio
    uint32_t file_sample_rate() const { return file_rate_; }     // as stored in the file
    std::optional<uint64_t> length_frames() const { return length_; }  // when known up front

    // Appends up to `frames` frames to `out`; returns how many, 0 at the end.
    size_t read(std::vector<float>& out, size_t frames);

    // What the container says about itself: "16-bit PCM WAV", "FLAC", ...
    const std::string& encoding() const { return encoding_; }
    const std::string& path() const { return path_; }

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::string path_;
    uint32_t channels_ = 0;
    uint32_t sample_rate_ = 0;
    uint32_t file_rate_ = 0;
    std::optional<uint64_t> length_;
    std::string encoding_;
};

// ---- files and terminal ------------------------------------------------

#if defined(_WIN32)
// UTF-8 to the UTF-16 the wide Windows API takes.
std::wstring widen(const std::string& utf8);
#endif

// A UTF-8 path as a file-system path and back (a narrow path string would be
// read in the ANSI code page on Windows).
std::filesystem::path fs_path(const std::string& utf8);
std::string utf8_text(const std::filesystem::path& p);

// fopen for a UTF-8 path (wide API on Windows).
FILE* open_file(const std::string& path, const char* mode);

// remove() for a UTF-8 path; failures are ignored (used to drop partial output).
void remove_file(const std::string& path);

// Whether this program may create files in the folder that holds `path`.
bool folder_writable(const std::string& path);

bool is_terminal(FILE* stream);

// Columns of the terminal on `stream`, or 0 when it is none or cannot tell.
int terminal_columns(FILE* stream);

// Makes a stream binary on Windows (a WAV on stdout or stdin); no-op elsewhere.
void binary_mode(FILE* stream);

// Standard output flushed and free of write errors; an OutputError otherwise
// ("woodshed devices > /dev/full" must not end with status 0).
void check_stdout();

// Status line on stderr that rewrites itself. Does nothing unless stderr is a
// terminal; call make_room() before printing to stdout so the two don't mix
// on one screen.
class Progress {
public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    // Rate-limited; `now_or_never` is for a step that runs long without
    // updates of its own and shows its text at once.
    void show(const std::string& text, bool now_or_never = false);
    void make_room();
    void clear();

private:
    bool enabled_;
    bool shares_screen_;
    int64_t start_ms_;
    size_t shown_ = 0;
    int64_t last_ms_ = -1;
};

// ---- Ctrl-C ------------------------------------------------------------

// Ctrl-C, and SIGTERM and SIGHUP where they exist, set the flag: a command
// finishes what it writes (a take's header) and exits with 130.
void install_interrupt_handler();
bool interrupted();

}  // namespace cli
