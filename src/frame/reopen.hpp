// What the live engines share about a device lost under them (the tuner's
// worker and the metronome's watchdog reopen it; the recorder does not).
#pragma once

#include <cstdint>

#include "woodshed/common.h"

namespace ws::frame {

// The reopen: the chosen device first, the default once if that fails.
// `open(false)` opens the chosen device, `open(true)` the default; each
// answers a ws result, and so does this.
template <class Open>
int32_t reopen_chosen_or_default(Open&& open) {
    const int32_t r = open(false);
    return r == ws_ok ? r : open(true);
}

}  // namespace ws::frame
