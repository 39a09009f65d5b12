#include "click_track.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace ws::test {

MetronomeConfig base_config() {
    MetronomeConfig c = metronome::plain_config();
    c.accent_gain = 0.9;
    c.beat_gain = 0.6;
    c.subdivision_gain = 0.3;
    c.sound = 2;
    c.poly_gain = 0.45;
    for (auto& level : c.accent_pattern) level = mn_level_normal;
    return c;
}

int64_t pulse_frame(int64_t k, int64_t rate, int64_t ubpm, int64_t subdivisions, int64_t divisor,
                    int64_t multiplier) {
    const int64_t millibeats = ubpm / 1000;
    return k * rate * 60000 * multiplier / (millibeats * divisor * subdivisions);
}

std::vector<float> expected_track(const std::vector<Click>& clicks, const metronome::SoundBank& bank,
                                  float master, size_t frames) {
    std::vector<float> out(frames, 0.0f);
    const float g = master * 0.85f;
    for (const Click& c : clicks) {
        const metronome::ClickTable t = bank.table(c.sound, c.accent);
        const float k = static_cast<float>(c.gain) * g;
        for (int32_t i = 0; i < t.length; ++i) {
            const int64_t f = c.frame + i;
            if (f >= 0 && static_cast<size_t>(f) < frames) out[static_cast<size_t>(f)] += t.samples[i] * k;
        }
    }
    for (float& s : out) s = std::clamp(s, -1.0f, 1.0f);
    return out;
}

uint32_t BlockSizes::next() {
    if (fixed_) return max_;
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return 1 + state_ % max_;
}

std::vector<float> render_mono(metronome::MetronomeCore& core, size_t frames, uint32_t max_block,
                               uint32_t seed) {
    std::vector<float> out(frames);
    BlockSizes sizes(seed, max_block);
    for (size_t done = 0; done < frames;) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(sizes.next(), frames - done));
        core.render(out.data() + done, n, 1);
        done += n;
    }
    return out;
}

std::string first_difference(const std::vector<float>& a, const std::vector<float>& b, float tol) {
    if (a.size() != b.size()) return "sizes differ";
    for (size_t i = 0; i < a.size(); ++i) {
        if (!(std::fabs(a[i] - b[i]) <= tol)) {
            std::ostringstream s;
            s << "frame " << i << ": " << a[i] << " vs " << b[i];
            return s.str();
        }
    }
    return {};
}

MetronomeSnapshot snapshot(const metronome::MetronomeCore& core) {
    MetronomeSnapshot s{};
    EXPECT_TRUE(core.read_snapshot(&s));
    return s;
}

}  // namespace ws::test
