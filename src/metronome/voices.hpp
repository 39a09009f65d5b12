// The 24 voices that play click tables, and the mixer. A fixed array, never
// resized: trigger() and mix() run on the audio thread (no locks, no
// allocation, no blocking). Voices point into a SoundBank's tables, so they
// must all be silenced before that bank is rebuilt.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "metronome/sound_bank.hpp"

namespace ws::metronome {

struct ClickVoice {
    const float* table = nullptr;  // not owned
    int32_t length = 0;
    // Next sample to play; negative while the voice waits for its start
    // inside the current block. 64 bits so that no block is too long for it.
    int64_t position = 0;
    float gain = 0.0f;
    bool active = false;
};

class VoicePool {
public:
    static constexpr int kVoices = 24;
    static constexpr float kHeadroom = 0.85f;

    // Starts `click` `offset` frames into the coming mix() block. Requests
    // without a table or at gain 0.0001 or less are ignored. With every
    // voice busy, the one that has played longest (greatest position, the
    // first in array order among equals) is replaced.
    void trigger(ClickTable click, double gain, int64_t offset);

    // Adds every active voice x master_gain x 0.85 into `out` (frames x
    // channels interleaved, the same click on every channel), then clips
    // every sample to -1..1. A voice that runs out within the block ends.
    void mix(float* out, uint32_t frames, uint32_t channels, float master_gain);

    void silence_all();
    int active_count() const;
    const ClickVoice& voice(int i) const { return voices_[static_cast<size_t>(i)]; }

private:
    std::array<ClickVoice, kVoices> voices_{};
};

}  // namespace ws::metronome
