// Test signals of known pitch for the tone and demo commands.
#pragma once

#include <cstdint>
#include <vector>

namespace cli {

// A plucked string at f0 Hz: decaying harmonics, peak at `peak` of full scale.
std::vector<float> pluck(double f0, double seconds, uint32_t rate, double peak = 0.5);

}  // namespace cli
