#include "metronome/voices.hpp"

#include <algorithm>

namespace ws::metronome {

void VoicePool::trigger(ClickTable click, double gain, int64_t offset) {
    if (click.samples == nullptr || click.length < 1 || !(gain > 0.0001)) return;
    ClickVoice* chosen = nullptr;
    for (ClickVoice& v : voices_) {
        if (!v.active) {
            chosen = &v;
            break;
        }
    }
    if (chosen == nullptr) {
        chosen = &voices_[0];
        for (ClickVoice& v : voices_) {
            if (v.position > chosen->position) chosen = &v;  // strict: the first of equals stays
        }
    }
    chosen->table = click.samples;
    chosen->length = click.length;
    chosen->gain = static_cast<float>(gain);
    chosen->position = -offset;
    chosen->active = true;
}

void VoicePool::mix(float* out, uint32_t frames, uint32_t channels, float master_gain) {
    const float g = master_gain * kHeadroom;
    const int64_t n = frames;
    const size_t ch = channels;
    for (ClickVoice& v : voices_) {
        if (!v.active) continue;
        // The block covers positions [position, position + n); the frames
        // before position 0 are the wait, those from length on are past the end.
        const int64_t first = std::max<int64_t>(0, -v.position);
        const int64_t last = std::min<int64_t>(n, v.length - v.position);
        const float k = v.gain * g;
        if (first < last) {
            const float* src = v.table + (v.position + first);
            float* dst = out + static_cast<size_t>(first) * ch;
            const size_t count = static_cast<size_t>(last - first);
            if (ch == 2) {
                for (size_t i = 0; i < count; ++i) {
                    const float s = src[i] * k;
                    dst[2 * i] += s;
                    dst[2 * i + 1] += s;
                }
            } else if (ch == 1) {
                for (size_t i = 0; i < count; ++i) dst[i] += src[i] * k;
            } else {
                for (size_t i = 0; i < count; ++i) {
                    const float s = src[i] * k;
                    for (size_t c = 0; c < ch; ++c) dst[i * ch + c] += s;
                }
            }
        }
        // A voice ends at the first frame of a block that finds it past its
        // table; one that runs out exactly at the block's end ends next block.
        if (v.position + n > v.length) {
            v.active = false;
        } else {
            v.position += n;
        }
    }
    const size_t total = static_cast<size_t>(frames) * ch;
    for (size_t i = 0; i < total; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f);
}

void VoicePool::silence_all() {
    for (ClickVoice& v : voices_) v.active = false;
}

int VoicePool::active_count() const {
    return static_cast<int>(std::count_if(voices_.begin(), voices_.end(),
                                          [](const ClickVoice& v) { return v.active; }));
}

}  // namespace ws::metronome
