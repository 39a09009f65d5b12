// Offline rendering of a click track: a private core per call, no lock, no
// instance, nothing kept between calls.
#include <algorithm>
#include <cmath>
#include <memory>

#include "frame/family.hpp"
#include "metronome/core.hpp"
#include "woodshed/metronome.h"

namespace {

// The live device asks for 6 ms periods; rendering in the same blocks makes
// the voice-stealing decisions (taken once per block) match what it plays.
uint32_t block_frames(double rate) {
    return static_cast<uint32_t>(std::max<long long>(1, std::llround(rate * 0.006)));
}

}  // namespace

extern "C" WS_API int64_t mn_render_offline(const MetronomeConfig* config, double sample_rate,
                                            int64_t frames, int32_t channels, float* out) WS_NOEXCEPT {
    if (config == nullptr || out == nullptr || frames < 1 || channels < 1 || channels > 8) {
        return ws_invalid_argument;
    }
    // Memory for the core is the only thing that can fail here; it has no
    // code of its own and ends the process.
    return ws::frame::fatal_on_throw([&]() -> int64_t {
        auto core = std::make_unique<ws::metronome::MetronomeCore>();
        core->prepare(sample_rate);
        core->start(*config);
        const uint32_t block = block_frames(core->sample_rate());
        const size_t ch = static_cast<size_t>(channels);
        for (int64_t done = 0; done < frames;) {
            const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(block, frames - done));
            core->render(out + static_cast<size_t>(done) * ch, n, static_cast<uint32_t>(channels));
            done += n;
        }
        return frames;
    });
}
