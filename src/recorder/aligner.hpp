// Keeps a take aligned with its backing when the round trip moves.
//
// Input frame j (at the device rate) was captured while backing frame
// start + j played; what the input hears of the backing arrives some
// round trip d later. A sound server that falls behind (an underrun, a
// rewind) moves d in mid-take. The aligner finds d by correlating the input
// with the backing, watches that it holds block by block, and when it
// moves, finds where and edits the stream there: it drops the frames the
// glitch added (d grew) or inserts silence for those it took away (d
// shrank), so that everything after the seam lines up as before it. Where
// the backing is not heard (headphones, silence), nothing is edited and the
// take follows the frame counts.
//
// The frames of the last few blocks are held back until they are known to
// lie before any seam. Writer thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ws::recorder {

class Aligner {
public:
    // The backing as played (interleaved stereo at the device rate, or
    // null for none), the frame it started from, and the device rate.
    void prepare(const float* backing, int64_t backing_frames, int64_t start_frame, uint32_t rate);

    // Appends captured frames.
    void push(const float* x, size_t n);
    // Hands the frames that are settled to sink(frames, n), edits applied;
    // with `all`, everything (the take ends).
    template <class Sink>
    void release(Sink&& sink, bool all);

    int32_t repairs() const { return repairs_; }

private:
    struct Edit {
        int64_t at;     // input frame where the seam lies
        int64_t shift;  // frames dropped there (> 0) or silence inserted (< 0)
    };
    void analyse_block(int64_t a);
    double score(int64_t a, size_t n, int64_t lag) const;
    int64_t find_seam(int64_t lo, int64_t hi, int64_t old_lag, int64_t new_lag) const;
    bool search(int64_t a, size_t n, int64_t lo, int64_t hi, int64_t& best_lag, double& best) const;
    float in_at(int64_t raw) const { return staging_[static_cast<size_t>(raw - base_)]; }
    float ref_at(int64_t raw, int64_t lag) const;
    int64_t settled() const;

    const float* backing_ = nullptr;
    int64_t backing_frames_ = 0, start_ = 0;
    uint32_t rate_ = 44100;
    size_t block_ = 2048;

    std::vector<float> staging_;  // input from frame base_ on
    int64_t base_ = 0, received_ = 0, emitted_ = 0, next_block_ = 0;
    std::vector<Edit> edits_;
    int64_t lag_ = -1;           // round trip in device frames; -1 while the backing is not found
    int64_t suspect_ = -1;       // first block where the lag stopped matching
    int64_t candidate_ = -1;     // the lag the last suspect block showed clearly
    int64_t next_acquire_ = 0, next_search_ = 0;
    int32_t repairs_ = 0;
    std::vector<float> zeros_;
};

template <class Sink>
void Aligner::release(Sink&& sink, bool all) {
    while (backing_ != nullptr && next_block_ + static_cast<int64_t>(block_) <= received_) {
        analyse_block(next_block_);
        next_block_ += static_cast<int64_t>(block_);
    }
    const int64_t limit = all ? received_ : settled();
    while (emitted_ < limit) {
        int64_t end = limit;
        const Edit* edit = nullptr;
        for (const Edit& e : edits_) {
            if (e.at >= emitted_ && e.at < end) {
                end = e.at;
                edit = &e;
            }
        }
        if (end > emitted_) sink(staging_.data() + (emitted_ - base_), static_cast<size_t>(end - emitted_));
        emitted_ = end;
        if (edit == nullptr) break;
        // A drop is taken whole: wait for its last frame unless the take ends.
        if (edit->shift > 0 && edit->at + edit->shift > limit && !all) break;
        if (edit->shift > 0) {
            emitted_ = std::min(limit, edit->at + edit->shift);
        } else {
            zeros_.assign(static_cast<size_t>(-edit->shift), 0.0f);
            sink(zeros_.data(), zeros_.size());
        }
        edits_.erase(edits_.begin() + (edit - edits_.data()));
    }
    // Let go of what neither the sink nor the analysis reads again.
    const int64_t keep = backing_ == nullptr ? emitted_ : std::min(emitted_, next_block_ - 8 * static_cast<int64_t>(block_));
    if (keep - base_ >= 65536) {
        staging_.erase(staging_.begin(), staging_.begin() + (keep - base_));
        base_ = keep;
    }
}

}  // namespace ws::recorder
