// SPDX-License-Identifier: MIT
#include "cli.hpp"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <miniaudio.h>

#include "audio_files.hpp"
#include "windows.hpp"
#include "woodshed/tuner.h"

#if defined(_WIN32)
#  include <fcntl.h>
#  include <io.h>
#else
#  include <sys/ioctl.h>
#  include <unistd.h>
#endif

namespace cli {

namespace {

std::string format_limit(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

bool is_option(const std::string& arg) { return arg.size() > 1 && arg[0] == '-'; }


}  // namespace

// ---- options -----------------------------------------------------------

Options::Options(std::string_view command, std::span<const std::string> args,
                 std::span<const OptionSpec> specs)
    : command_(command) {
    bool only_positionals = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (only_positionals || !is_option(arg)) {
            positionals_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            only_positionals = true;
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            help_ = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) {
            throw UsageError("unknown option '" + arg + "' for '" + command_ +
                             "' (see 'woodshed " + command_ + " --help')");
        }
        std::string name = arg.substr(2);
        std::optional<std::string> inline_value;
        if (const auto eq = name.find('='); eq != std::string::npos) {
            inline_value = name.substr(eq + 1);
            name.resize(eq);
        }
        const auto known = std::find_if(specs.begin(), specs.end(),
                                        [&](const OptionSpec& s) { return s.name == name; });
        if (known == specs.end()) {
            throw UsageError("unknown option '--" + name + "' for '" + command_ +
                             "' (see 'woodshed " + command_ + " --help')");
        }
        if (!known->takes_value) {
            if (inline_value) throw UsageError("option '--" + name + "' takes no value");
            flags_.push_back(name);
            continue;
        }
        std::string value;
        if (inline_value) {
            value = *inline_value;
        } else {
            // A value may itself start with '-' (a negative number), so take
            // the next argument whatever it looks like.
            if (i + 1 >= args.size()) throw UsageError("option '--" + name + "' needs a value");
            value = args[++i];
        }
        values_.emplace_back(name, value);
    }
}

bool Options::flag(std::string_view name) const {
    return std::find(flags_.begin(), flags_.end(), name) != flags_.end();
}

std::optional<std::string> Options::value(std::string_view name) const {
    for (auto it = values_.rbegin(); it != values_.rend(); ++it) {
        if (it->first == name) return it->second;
    }
    return std::nullopt;
}

void Options::expect_positionals(size_t count, std::string_view what) const {
    if (positionals_.size() < count) {
        throw UsageError("'" + command_ + "' needs " + std::string(what) + " (see 'woodshed " +
                         command_ + " --help')");
    }
    if (positionals_.size() > count) {
        throw UsageError("unexpected argument '" + positionals_[count] + "' for '" + command_ +
                         "'");
    }
}

namespace {
// The whole text as one finite number, or nothing.
std::optional<double> to_number(std::string_view text) {
    const std::string s(text);
    if (s.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(s.c_str(), &end);
    if (end != s.c_str() + s.size() || errno == ERANGE || !std::isfinite(v)) return std::nullopt;
    return v;
}
}  // namespace

double parse_number(std::string_view option, std::string_view text, double lo, double hi) {
    const auto v = to_number(text);
    if (!v || *v < lo || *v > hi) {
        throw UsageError("--" + std::string(option) + " wants a number from " + format_limit(lo) +
                         " to " + format_limit(hi) + ", not '" + std::string(text) + "'");
    }
    return *v;
}

std::pair<double, double> parse_range(std::string_view option, std::string_view text) {
    const auto dots = text.find("..");
    const auto lo = dots == std::string_view::npos ? std::nullopt : to_number(text.substr(0, dots));
    const auto hi = dots == std::string_view::npos ? std::nullopt : to_number(text.substr(dots + 2));
    if (!lo || !hi) {
        throw UsageError("--" + std::string(option) + " wants LOW..HIGH, two numbers, not '" +
                         std::string(text) + "'");
    }
    return {*lo, *hi};
}

// ---- notes -------------------------------------------------------------

std::optional<int> note_from_text(std::string_view text) {
    if (text.empty()) return std::nullopt;
    if (std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        if (text.size() > 3) return std::nullopt;
        const int n = std::atoi(std::string(text).c_str());
        return n <= 127 ? std::optional<int>(n) : std::nullopt;
    }
    // Semitones of C D E F G A B above C.
    static constexpr int kLetter[7] = {9, 11, 0, 2, 4, 5, 7};  // A..G
    const char letter = static_cast<char>(text[0] | 0x20);
    if (letter < 'a' || letter > 'g') return std::nullopt;
    int semitone = kLetter[letter - 'a'];
    size_t i = 1;
    if (i < text.size() && text[i] == '#') {
        ++semitone;
        ++i;
    } else if (i < text.size() && text[i] == 'b') {
        --semitone;
        ++i;
    }
    bool negative = false;
    if (i < text.size() && text[i] == '-') {
        negative = true;
        ++i;
    }
    if (i == text.size() || text.size() - i > 2) return std::nullopt;
    int octave = 0;
    for (; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return std::nullopt;
        octave = octave * 10 + (text[i] - '0');
    }
    if (negative) octave = -octave;
    const int midi = (octave + 1) * 12 + semitone;
    if (midi < 0 || midi > 127) return std::nullopt;
    return midi;
}

int parse_note(std::string_view option, std::string_view text) {
    const auto midi = note_from_text(text);
    if (!midi) {
        throw UsageError("--" + std::string(option) +
                         " wants a note name like E2, F#3 or Bb3, or a MIDI number 0..127, not '" +
                         std::string(text) + "'");
    }
    return *midi;
}

std::string note_name(int midi) {
    static constexpr const char* kNames[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                               "F#", "G",  "G#", "A",  "A#", "B"};
    if (midi < 0 || midi > 127) return "--";
    return std::string(kNames[midi % 12]) + std::to_string(midi / 12 - 1);
}

const char* state_word(uint32_t state) {
    switch (state) {
        case tn_state_silent: return "silent";
        case tn_state_holding: return "holding";
        case tn_state_pitched: return "pitched";
        case tn_state_in_tune: return "in tune";
        default: return "unknown";
    }
}

double note_frequency(int midi, double a4_hz) {
    return a4_hz * std::exp2((midi - 69) / 12.0);
}

// ---- audio input -------------------------------------------------------

namespace {

// A pipe, read whole, served to the decoder as a file system of one file.
// miniaudio's own calls for memory and for a path free a pointer into the
// decoder when the format conversion cannot be set up (a WAV of 256
// channels): the file-system call cleans up as it should, so every input
// goes through it.
struct MemoryFile {
    ma_vfs_callbacks callbacks;  // first: miniaudio reads the file system as its callbacks
    const std::vector<unsigned char>* bytes;
    uint64_t pos;
};

MemoryFile& memory_file(ma_vfs* vfs) { return *static_cast<MemoryFile*>(vfs); }

ma_result memory_open(ma_vfs* vfs, const char*, ma_uint32, ma_vfs_file* file) {
    memory_file(vfs).pos = 0;
    *file = vfs;
    return MA_SUCCESS;
}
ma_result memory_open_w(ma_vfs* vfs, const wchar_t*, ma_uint32 mode, ma_vfs_file* file) {
    return memory_open(vfs, nullptr, mode, file);
}
ma_result memory_close(ma_vfs*, ma_vfs_file) { return MA_SUCCESS; }
ma_result memory_read(ma_vfs* vfs, ma_vfs_file, void* dst, size_t size, size_t* got) {
    MemoryFile& f = memory_file(vfs);
    const uint64_t total = f.bytes->size();
    const size_t n = f.pos < total ? static_cast<size_t>(std::min<uint64_t>(size, total - f.pos)) : 0;
    if (n > 0) std::memcpy(dst, f.bytes->data() + f.pos, n);
    f.pos += n;
    if (got != nullptr) *got = n;
    return n == 0 && size > 0 ? MA_AT_END : MA_SUCCESS;
}
ma_result memory_write(ma_vfs*, ma_vfs_file, const void*, size_t, size_t*) { return MA_NOT_IMPLEMENTED; }
ma_result memory_seek(ma_vfs* vfs, ma_vfs_file, ma_int64 offset, ma_seek_origin origin) {
    MemoryFile& f = memory_file(vfs);
    const auto base = static_cast<int64_t>(origin == ma_seek_origin_start     ? 0
                                           : origin == ma_seek_origin_current ? f.pos
                                                                              : f.bytes->size());
    // The offset comes from the file's own fields: no overflow, no negative position.
    if (offset < -base || offset > INT64_MAX - base) return MA_BAD_SEEK;
    f.pos = static_cast<uint64_t>(base + offset);
    return MA_SUCCESS;
}
ma_result memory_tell(ma_vfs* vfs, ma_vfs_file, ma_int64* cursor) {
    *cursor = static_cast<ma_int64>(memory_file(vfs).pos);
    return MA_SUCCESS;
}
ma_result memory_info(ma_vfs* vfs, ma_vfs_file, ma_file_info* info) {
    info->sizeInBytes = memory_file(vfs).bytes->size();
    return MA_SUCCESS;
}

}  // namespace

struct AudioReader::Impl {
    ma_decoder decoder{};
    bool open = false;
    std::vector<unsigned char> memory;  // a pipe, read whole
    MemoryFile memory_vfs{{memory_open, memory_open_w, memory_close, memory_read, memory_write, memory_seek,
                           memory_tell, memory_info},
                          &memory, 0};
    ~Impl() {
        if (open) ma_decoder_uninit(&decoder);
    }
};

namespace {

std::string decode_reason(ma_result r) {
    switch (r) {
        case MA_DOES_NOT_EXIST: return "no such file";
        case MA_ACCESS_DENIED: return "permission denied";
        case MA_IS_DIRECTORY: return "is a directory";
        case MA_NO_BACKEND:
        case MA_INVALID_FILE:
        case MA_INVALID_DATA:
        case MA_NOT_IMPLEMENTED:
        case MA_FORMAT_NOT_SUPPORTED: return "not a WAV, FLAC or MP3 file, or damaged";
        default: {
            std::string text = ma_result_description(r);
            if (!text.empty()) text[0] = static_cast<char>(std::tolower(text[0]));
            return text;
        }
    }
}

// A pipe as bytes, read whole, since nothing can seek in it. Capped like the
// largest file the take tools take, so an endless stream ends in an error.
std::vector<unsigned char> read_stream(const std::string& path) {
    FILE* in = path == "-" ? stdin : open_file(path, "rb");
    if (in == nullptr) input_error(path, std::strerror(errno));
    binary_mode(in);
    std::vector<unsigned char> bytes;
    unsigned char buf[65536];
    constexpr size_t kMax = size_t{2} << 30;
    for (;;) {
        const size_t n = std::fread(buf, 1, sizeof buf, in);
        bytes.insert(bytes.end(), buf, buf + n);
        if (n < sizeof buf) break;
        if (bytes.size() > kMax) input_error(path, "more than 2 GiB of input");
    }
    const bool bad = std::ferror(in) != 0;
    if (in != stdin) std::fclose(in);
    if (bad) input_error(path, std::strerror(errno));
    return bytes;
}

ma_result open_decoder(const std::string& path, MemoryFile& memory, uint32_t rate, ma_decoder* decoder) {
    const ma_decoder_config config = ma_decoder_config_init(ma_format_f32, 0, rate);
    if (!memory.bytes->empty()) return ma_decoder_init_vfs(&memory, "stdin", &config, decoder);
#if defined(_WIN32)
    return ma_decoder_init_vfs_w(nullptr, widen(path).c_str(), &config, decoder);
#else
    return ma_decoder_init_vfs(nullptr, path.c_str(), &config, decoder);
#endif
}

}  // namespace

AudioReader::AudioReader(const std::string& path, uint32_t min_rate, uint32_t max_rate,
                         uint32_t fallback_rate)
    : impl_(std::make_unique<Impl>()), path_(path) {
    auto fail = [&](const std::string& reason) { input_error(path, reason); };
    FileFacts facts;
    bool stream = path == "-";
    if (!stream) {
        facts = inspect_file(path);
        if (!facts.problem.empty()) fail(facts.problem);
        stream = facts.stream;
    }
    if (stream) {
        impl_->memory = read_stream(path);
        if (impl_->memory.empty()) fail("empty input");
        facts = inspect_bytes(impl_->memory.data(), impl_->memory.size(), impl_->memory.size());
    }
    encoding_ = facts.encoding;
    if (facts.wav && facts.channels > MA_MAX_CHANNELS) {
        fail(std::to_string(facts.channels) + " channels; files of up to " + std::to_string(MA_MAX_CHANNELS) +
             " are read");
    }
    if (const std::string why = refusal(facts); !why.empty()) fail(why);
    ma_result r = open_decoder(path, impl_->memory_vfs, 0, &impl_->decoder);
    if (r != MA_SUCCESS) {
        if (r == MA_DOES_NOT_EXIST) r = MA_INVALID_FILE;  // the file is there: an empty one reads so
        fail(decode_reason(r));
    }
    impl_->open = true;

    ma_format format{};
    ma_uint32 channels = 0, rate = 0;
    r = ma_decoder_get_data_format(&impl_->decoder, &format, &channels, &rate, nullptr, 0);
    if (r != MA_SUCCESS) fail(decode_reason(r));
    if (channels == 0 || rate == 0) fail("no audio format");
    if (rate < kLowestFileRate || rate > kHighestFileRate) {
        fail("the header gives a sample rate of " + std::to_string(rate) + " Hz; files of " +
             std::to_string(kLowestFileRate) + " to " + std::to_string(kHighestFileRate) +
             " Hz are read (damaged header?)");
    }
    file_rate_ = rate;
    if (rate < min_rate || rate > max_rate) {
        ma_decoder_uninit(&impl_->decoder);
        impl_->open = false;
        r = open_decoder(path, impl_->memory_vfs, fallback_rate, &impl_->decoder);
        if (r != MA_SUCCESS) fail(decode_reason(r));
        impl_->open = true;
        rate = fallback_rate;
    }
    channels_ = channels;
    sample_rate_ = rate;
    ma_uint64 length = 0;
    if (ma_decoder_get_length_in_pcm_frames(&impl_->decoder, &length) == MA_SUCCESS && length > 0) {
        length_ = length;
    }
    if (!facts.warning.empty()) {
        std::fprintf(stderr, "woodshed: warning: %s: %s\n", display_name(path).c_str(),
                     facts.warning.c_str());
    }
}

AudioReader::~AudioReader() = default;

size_t AudioReader::read(std::vector<float>& out, size_t frames) {
    const size_t before = out.size();
    out.resize(before + frames * channels_);
    ma_uint64 got = 0;
    const ma_result r =
        ma_decoder_read_pcm_frames(&impl_->decoder, out.data() + before, frames, &got);
    out.resize(before + static_cast<size_t>(got) * channels_);
    if (r != MA_SUCCESS && r != MA_AT_END && got == 0) input_error(path_, decode_reason(r));
    return static_cast<size_t>(got);
}

// ---- files and terminal ------------------------------------------------

#if defined(_WIN32)
std::wstring widen(const std::string& utf8) {
    if (utf8.empty()) return {};
    const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()),
                                      nullptr, 0);
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(), n);
    return wide;
}
#endif

std::filesystem::path fs_path(const std::string& utf8) {
    return std::filesystem::path(std::u8string(reinterpret_cast<const char8_t*>(utf8.data()), utf8.size()));
}

std::string utf8_text(const std::filesystem::path& p) {
    const std::u8string s = p.u8string();
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

FILE* open_file(const std::string& path, const char* mode) {
#if defined(_WIN32)
    return _wfopen(widen(path).c_str(), widen(mode).c_str());
#else
    return std::fopen(path.c_str(), mode);
#endif
}

void remove_file(const std::string& path) {
#if defined(_WIN32)
    _wremove(widen(path).c_str());
#else
    std::remove(path.c_str());
#endif
}

bool folder_writable(const std::string& path) {
    const std::filesystem::path parent = fs_path(path).parent_path();
    const std::string folder = parent.empty() ? std::string(".") : utf8_text(parent);
#if defined(_WIN32)
    return _waccess(widen(folder).c_str(), 2) == 0;
#else
    return access(folder.c_str(), W_OK) == 0;
#endif
}

bool is_terminal(FILE* stream) {
#if defined(_WIN32)
    return _isatty(_fileno(stream)) != 0;
#else
    return isatty(fileno(stream)) != 0;
#endif
}

int terminal_columns(FILE* stream) {
    if (!is_terminal(stream)) return 0;
#if defined(_WIN32)
    CONSOLE_SCREEN_BUFFER_INFO info;
    HANDLE h = GetStdHandle(stream == stderr ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE);
    if (!GetConsoleScreenBufferInfo(h, &info)) return 0;
    return info.srWindow.Right - info.srWindow.Left + 1;
#else
    winsize ws{};
    if (ioctl(fileno(stream), TIOCGWINSZ, &ws) != 0) return 0;
    return ws.ws_col;
#endif
}

void binary_mode(FILE* stream) {
#if defined(_WIN32)
    _setmode(_fileno(stream), _O_BINARY);
#else
    (void)stream;
#endif
}

void check_stdout() {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        const int e = errno;
        output_error("-", e != 0 ? std::strerror(e) : "write error");
    }
}

void input_error(const std::string& path, const std::string& reason) {
    throw InputError(display_name(path) + ": " + reason);
}

void output_error(const std::string& path, const std::string& reason) {
    throw OutputError((path == "-" ? std::string("stdout") : path) + ": " + reason);
}

namespace {
int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
}  // namespace

Progress::Progress()
    : enabled_(is_terminal(stderr)), shares_screen_(enabled_ && is_terminal(stdout)),
      start_ms_(now_ms()) {}

Progress::~Progress() { clear(); }

void Progress::show(const std::string& text, bool now_or_never) {
    if (!enabled_) return;
    const int64_t now = now_ms();
    // Quick jobs never show a status line; long ones update it ten times a second.
    if (!now_or_never) {
        if (now - start_ms_ < 300) return;
        if (last_ms_ >= 0 && now - last_ms_ < 100) return;
    }
    last_ms_ = now;
    // Pad over a longer previous text instead of relying on terminal escapes,
    // which not every Windows console honours.
    // Cut to the terminal's width: a wrapped status line cannot rewrite itself.
    const int columns = terminal_columns(stderr);
    const std::string fitted = columns > 1 ? text.substr(0, static_cast<size_t>(columns - 1)) : text;
    std::string line(1, '\r');
    line += fitted;
    if (fitted.size() < shown_) line.append(shown_ - fitted.size(), ' ');
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    shown_ = fitted.size();
}

void Progress::make_room() {
    if (shares_screen_) clear();
}

void Progress::clear() {
    if (!enabled_ || shown_ == 0) return;
    std::string blank(shown_ + 2, ' ');
    blank.front() = '\r';
    blank.back() = '\r';
    std::fputs(blank.c_str(), stderr);
    std::fflush(stderr);
    shown_ = 0;
    last_ms_ = -1;
}

// ---- Ctrl-C ------------------------------------------------------------

namespace {
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is set from a signal handler");

void on_interrupt(int signal) {
    g_interrupted.store(true, std::memory_order_relaxed);
    // A second one ends the program at once, for when a report hangs.
    std::signal(signal, SIG_DFL);
}
}  // namespace

void install_interrupt_handler() {
    std::signal(SIGINT, on_interrupt);
    std::signal(SIGTERM, on_interrupt);
#if defined(SIGHUP)
    std::signal(SIGHUP, on_interrupt);
#endif
}

bool interrupted() { return g_interrupted.load(std::memory_order_relaxed); }

}  // namespace cli
