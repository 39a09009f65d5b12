// SPDX-License-Identifier: MIT
// Test signals of known pitch for the tone and demo commands.
#pragma once

#include <cstdint>
#include <vector>

namespace cli {

// The harmonics of a pluck stay below this (Hz): 0.45 x the rate, 10 kHz at most.
inline double pluck_top(uint32_t rate) { return 0.45 * rate < 10000.0 ? 0.45 * rate : 10000.0; }

// A plucked string at f0 Hz: decaying harmonics, peak at `peak` of full scale.
// Silent unless f0 is below pluck_top(rate).
std::vector<float> pluck(double f0, double seconds, uint32_t rate, double peak = 0.5);

}  // namespace cli
