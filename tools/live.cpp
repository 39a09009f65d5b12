// SPDX-License-Identifier: MIT
#include "live.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "cli.hpp"

#include "windows.hpp"

#if defined(_WIN32)
#  ifndef ENABLE_VIRTUAL_TERMINAL_PROCESSING
#    define ENABLE_VIRTUAL_TERMINAL_PROCESSING 0x0004
#  endif
#endif

namespace cli {

namespace {

// What a back end without a server lists beside the cards: ALSA's plug-in
// PCMs (rate converters, up/down mixers, bridges to other servers), known by
// their plain names. The id text spells the back end's device name in hex.
bool plugin(const DeviceRecord& d) {
    std::string name;
    const char* hex = d.id_text;
    for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
        const char pair[3] = {hex[i], hex[i + 1], '\0'};
        name += static_cast<char>(std::strtol(pair, nullptr, 16));
    }
    static constexpr const char* kPlugins[] = {"null", "lavrate", "samplerate", "speexrate", "jack", "oss",
                                               "pulse", "speex", "upmix", "vdownmix", "a52", "pipewire"};
    for (const char* p : kPlugins) {
        const size_t n = std::strlen(p);
        // "samplerate_best" and the like are variants of one.
        if (name.compare(0, n, p) == 0 && (name.size() == n || name[n] == '_')) return true;
    }
    return false;
}

}  // namespace

std::string result_text(int32_t result, int32_t backend_result) {
    const char* words = "unknown error";
    switch (result) {
        case ws_ok: words = "no error"; break;
        case ws_already_created: words = "already in use in this program"; break;
        case ws_not_created: words = "not created"; break;
        case ws_invalid_argument: words = "invalid argument"; break;
        case ws_backend_init_failed: return no_sound_text();
        case ws_no_device: words = "no such device"; break;
        case ws_device_busy: words = "device busy or unavailable"; break;
        case ws_access_denied: words = "access to the device denied"; break;
        case ws_unsupported_format: words = "unsupported format"; break;
        case ws_device_failure: words = "device failure"; break;
        default: break;
    }
    std::string text = std::string(words) + " (error " + std::to_string(result);
    if (backend_result != 0) text += ", back end " + std::to_string(backend_result);
    return text + ")";
}

DeviceList read_devices(const char* what, int32_t (*refresh)(),
                        int32_t (*get)(int32_t, DeviceRecord*)) {
    const int32_t count = refresh();
    if (count < 0) {
        throw DeviceError(std::string("cannot list the ") + what + " devices: " + result_text(count));
    }
    DeviceList list;
    for (int32_t i = 0; i < count; ++i) {
        DeviceRecord d{};
        if (get(i, &d) != 1) break;
        // The record is NUL-padded, but a host never trusts that blindly.
        d.id_text[sizeof d.id_text - 1] = '\0';
        d.name[sizeof d.name - 1] = '\0';
        if (!plugin(d)) list.devices.push_back(d);
    }
    return list;
}

const DeviceRecord& resolve_device(const DeviceList& list, const std::string& text, const char* what) {
    const auto lower = [](std::string t) {
        for (char& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return t;
    };
    const std::string wanted = lower(text);
    for (const DeviceRecord& d : list.devices) {
        if (!wanted.empty() && lower(d.id_text) == wanted) return d;
    }
    if (!text.empty() && text.size() < 4 &&
        std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        const size_t index = std::stoul(text);
        if (index < list.devices.size()) return list.devices[index];
    }
    for (const DeviceRecord& d : list.devices) {
        if (lower(d.name) == wanted) return d;
    }
    const DeviceRecord* found = nullptr;
    int count = 0;
    for (const DeviceRecord& d : list.devices) {
        if (!wanted.empty() && lower(d.name).find(wanted) != std::string::npos) {
            found = &d;
            ++count;
        }
    }
    if (count == 1) return *found;
    throw DeviceError(std::string(count > 1 ? "several " : "no ") + what + " devices match '" + text +
                      "' (give an ID, an index or a name from 'woodshed devices')");
}

std::string no_sound_text() {
#if defined(_WIN32)
    return "no sound server or sound card found (tried: WASAPI, DirectSound, WinMM)";
#else
    return "no sound server or sound card found (tried: PulseAudio, ALSA, JACK)";
#endif
}

const DeviceRecord* default_device(const DeviceList& list) {
    for (const DeviceRecord& d : list.devices) {
        if (d.is_default == 1) return &d;
    }
    return nullptr;
}

// ---- display -----------------------------------------------------------

LiveDisplay::LiveDisplay() {
    if (!is_terminal(stdout)) return;
#if defined(_WIN32)
    // Windows consoles take escapes only once asked to; an old console that
    // refuses gets plain lines instead.
    HANDLE h = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (h == INVALID_HANDLE_VALUE || !GetConsoleMode(h, &mode)) return;
    if (!(mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING)) {
        if (!SetConsoleMode(h, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING)) return;
        saved_mode_ = mode;
        mode_changed_ = true;
    }
#else
    // A terminal that declares itself dumb would print the escapes as text.
    const char* term = std::getenv("TERM");
    if (term != nullptr && std::strcmp(term, "dumb") == 0) return;
#endif
    in_place_ = true;
}

LiveDisplay::~LiveDisplay() { finish(); }

void LiveDisplay::draw(const std::vector<std::string>& lines) {
    if (!in_place_) return;
    std::string out;
    if (!cursor_hidden_) {
        out += "\x1b[?25l";
        cursor_hidden_ = true;
    }
    // The cursor rests at the end of the block's last line.
    out += '\r';
    if (shown_ > 1) out += "\x1b[" + std::to_string(shown_ - 1) + "A";
    const size_t count = std::max(lines.size(), shown_);
    // One column short of the width: some terminals wrap on the last one.
    const int columns = terminal_columns(stdout);
    const size_t width = columns > 1 ? static_cast<size_t>(columns - 1) : 79;
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) out += '\n';
        if (i < lines.size()) out += lines[i].substr(0, width);
        out += "\x1b[K";
    }
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    shown_ = count;
}

void LiveDisplay::finish() {
    if (!in_place_) return;
    std::string out;
    if (shown_ > 0) out += '\n';
    if (cursor_hidden_) out += "\x1b[?25h";
    std::fputs(out.c_str(), stdout);
    std::fflush(stdout);
    shown_ = 0;
    cursor_hidden_ = false;
#if defined(_WIN32)
    if (mode_changed_) {
        SetConsoleMode(GetStdHandle(STD_OUTPUT_HANDLE), saved_mode_);
        mode_changed_ = false;
    }
#endif
    in_place_ = false;
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

int64_t parse_integer(std::string_view option, std::string_view text, int64_t lo, int64_t hi) {
    const std::string s(text);
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(s.c_str(), &end, 10);
    if (s.empty() || end != s.c_str() + s.size() || errno == ERANGE || v < lo || v > hi) {
        throw UsageError("--" + std::string(option) + " wants a whole number from " +
                         std::to_string(lo) + " to " + std::to_string(hi) + ", not '" + s + "'");
    }
    return v;
}

std::string metronome_position(const MetronomeSnapshot& s, int32_t count_in_bars, int32_t beats_per_bar) {
    char buf[64];
    if (s.bar < 0) {
        std::snprintf(buf, sizeof buf, "count-in %lld/%d  beat %d/%d",
                      static_cast<long long>(s.bar + count_in_bars + 1), count_in_bars, s.beat + 1, beats_per_bar);
    } else {
        std::snprintf(buf, sizeof buf, "bar %-4lld  beat %d/%d", static_cast<long long>(s.bar + 1), s.beat + 1,
                      beats_per_bar);
    }
    return buf;
}

FamilyInstance::FamilyInstance(int32_t (*create)(), int32_t (*destroy)(), const char* what) : destroy_(destroy) {
    const int32_t r = create();
    if (r != ws_ok) throw DeviceError(std::string("cannot start the ") + what + ": " + result_text(r));
}

}  // namespace cli
