// Sample-rate conversion at a fixed ratio: a band-limited polyphase
// windowed-sinc filter (Kaiser window, stop band below -100 dB, pass band up
// to 0.45 of the lower rate). The path through it is linear and
// time-invariant, and the output is the same however the input is split into
// blocks, so a signal converted one way and back lines up with itself to a
// fraction of a frame.
//
// Output frame k sits at input time k * in_rate / out_rate exactly: the
// filter is centred, so the conversion adds no delay (the stream holds back
// half the filter's length until enough input has arrived; flush() pads the
// end with silence). Input before the first frame counts as silence.
//
// Not for the audio thread: process() may grow the history buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace ws::frame {

// The filter for one ratio, shared by every stream of that ratio.
struct ResamplerKernel;

class Resampler {
public:
    Resampler(uint32_t in_rate, uint32_t out_rate);
    ~Resampler();
    Resampler(Resampler&&) noexcept;
    Resampler& operator=(Resampler&&) noexcept;

    uint32_t in_rate() const { return in_rate_; }
    uint32_t out_rate() const { return out_rate_; }
    bool identity() const { return in_rate_ == out_rate_; }

    // Output frames that process() may write for n input frames, at most.
    size_t max_output(size_t n) const;
    // Takes n input frames; writes the output frames now complete to `out`
    // (room for max_output(n)) and returns their count.
    size_t process(const float* in, size_t n, float* out);
    // Ends the stream: writes the outputs still owed, those whose positions
    // lie before the end of the input (at most max_output(0) frames), and
    // returns their count. Afterwards the stream starts afresh.
    size_t flush(float* out);
    // A fresh stream: no history, time zero.
    void reset();

    // Output frames a whole input of n frames gives: ceil(n * out / in).
    static uint64_t output_frames(uint64_t n, uint32_t in_rate, uint32_t out_rate);
    // One-shot conversion of a whole signal; the same as process + flush.
    static std::vector<float> convert(const float* in, size_t n, uint32_t in_rate, uint32_t out_rate);

private:
    float compute(size_t at, uint64_t frac) const;
    size_t run(float* out, uint64_t limit);

    uint32_t in_rate_, out_rate_;
    std::shared_ptr<const ResamplerKernel> kernel_;
    std::vector<float> history_;  // input from frame base_ on
    int64_t base_ = 0;            // input frame index of history_[0]
    uint64_t consumed_ = 0, produced_ = 0;  // input frames received, output frames written
    int64_t pos_int_ = 0;         // next output's input position, whole part
    uint64_t pos_frac_ = 0;       // and its fraction, in 1/L
};

}  // namespace ws::frame
