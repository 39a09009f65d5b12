// Drives a metronome core with arbitrary configuration bytes, sample rates,
// channel counts, block sizes and command sequences, and aborts when the
// output leaves -1..1 (or is not finite) or the snapshot breaks its ranges.
//
// Input: [rate selector][channel byte][176 configuration bytes] then
// commands, one selector byte each followed by its operands. Missing bytes
// read as zero, so every input is valid.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "metronome/core.hpp"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_metronome: broken invariant: %s\n", what);
    std::abort();
}

class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    void take(void* out, size_t n) {
        auto* o = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i) o[i] = at_ < size_ ? data_[at_++] : 0;
    }
    template <class T>
    T get() {
        T v;
        take(&v, sizeof v);
        return v;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

constexpr double kRates[] = {48000.0, 44100.0, 8000.0, 384000.0, 96000.0, 22050.5, 192000.0,
                             0.0, -1.0, 7999.0, 1e9, std::numeric_limits<double>::quiet_NaN()};
constexpr int64_t kMaxFramesPerInput = 1 << 18;  // about 5 s at 48 kHz: keeps inputs quick

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    const double rate = kRates[in.get<uint8_t>() % (sizeof kRates / sizeof kRates[0])];
    const uint32_t channels = 1 + in.get<uint8_t>() % 8u;
    MetronomeConfig config;
    in.take(&config, sizeof config);

    // A fresh core per input, so every run is reproducible.
    auto core = std::make_unique<ws::metronome::MetronomeCore>();
    core->prepare(rate);
    core->start(config);

    constexpr size_t kGuard = 64;
    std::vector<float> out(16384 * 8 + kGuard);
    int64_t rendered = 0;
    auto render = [&](uint32_t frames) {
        const size_t n = static_cast<size_t>(frames) * channels;
        std::fill(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(n + kGuard), 12345.0f);
        core->render(out.data(), frames, channels);
        // Every sample overwritten, within full scale; nothing written past the block.
        for (size_t i = 0; i < n; ++i) {
            check(std::isfinite(out[i]) && out[i] >= -1.0f && out[i] <= 1.0f, "sample");
        }
        for (size_t i = n; i < n + kGuard; ++i) check(out[i] == 12345.0f, "wrote past the block");
        rendered += frames;
        MetronomeSnapshot s;
        check(core->read_snapshot(&s), "no snapshot after a block");
        check(s.beat_phase >= 0.0 && s.beat_phase <= 1.0 && s.bar_phase >= 0.0 && s.bar_phase <= 1.0, "phase");
        check(s.state >= mn_state_stopped && s.state <= mn_state_paused, "state");
        check(s.tempo_ubpm >= 10000000 && s.tempo_ubpm <= 400000000, "tempo");
        check(s.sample_rate >= 8000 && s.sample_rate <= 384000, "rate");
        check(s.beat >= 0 && s.beat < 32 && s.subdivision >= 0 && s.subdivision < 12, "position");
        check(s.reserved == 0 && (s.bar_muted == 0 || s.bar_muted == 1), "flags");
    };

    while (!in.empty() && rendered < kMaxFramesPerInput) {
        const uint8_t op = in.get<uint8_t>();
        switch (op % 12) {
            case 0: case 1: case 2:
                render(1 + in.get<uint16_t>() % 2048u);
                break;
            case 3:
                render(1 + in.get<uint16_t>() % 16384u);
                break;
            case 4: {  // a new start or configuration: a few bytes of the record changed
                const size_t at = in.get<uint8_t>() % sizeof config;
                const size_t len = 1 + in.get<uint8_t>() % 16u;
                in.take(reinterpret_cast<uint8_t*>(&config) + at, std::min<size_t>(len, sizeof config - at));
                if (op & 0x80) core->start(config);
                else core->configure(config);
                break;
            }
            case 5: core->stop(); break;
            case 6: core->pause(); break;
            case 7: core->resume(); break;
            case 8: core->set_tempo(in.get<int64_t>()); break;
            case 9: core->set_master_gain(in.get<double>()); break;
            case 10: {  // any command, whole, as raw bytes
                ws::metronome::MetronomeCommand c;
                c.type = in.get<uint8_t>() % 10u;
                c.int_value = in.get<int64_t>();
                c.float_value = in.get<double>();
                c.config = config;
                core->push(c);
                break;
            }
            default:  // many commands at once: the full-queue rule
                for (int i = 0, n = in.get<uint8_t>() % 48; i < n; ++i) core->set_tempo(60000000 + i);
                break;
        }
    }
    render(512);
    return 0;
}
