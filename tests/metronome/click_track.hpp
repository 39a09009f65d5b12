// The configuration the metronome's unit tests start from, and a snapshot
// that must be there.
#pragma once

#include <gtest/gtest.h>

#include "metronome/config.hpp"
#include "metronome/core.hpp"

namespace ws::test {

// 4/4 at 120 BPM with sound 2 (the shortest), every beat normal, and gains
// 1 / 0.9 / 0.6 / 0.3 / 0.45 for master / accent / beat / subdivision /
// second rhythm, so each kind of click has a level of its own.
inline MetronomeConfig base_config() {
    MetronomeConfig c = metronome::plain_config();
    c.accent_gain = 0.9;
    c.beat_gain = 0.6;
    c.subdivision_gain = 0.3;
    c.sound = 2;
    c.poly_gain = 0.45;
    for (auto& level : c.accent_pattern) level = mn_level_normal;
    return c;
}

inline MetronomeSnapshot snapshot(const metronome::MetronomeCore& core) {
    MetronomeSnapshot s{};
    EXPECT_TRUE(core.read_snapshot(&s));
    return s;
}

}  // namespace ws::test
