// The take on disk and the thread that fills it.
//
// A take is a canonical 44-byte-header WAV file, 16-bit PCM, mono, 44100 Hz.
// The header is written first with a data size of 0, rewritten every 5
// seconds of audio (so a file left behind by a crash plays up to its last
// checkpoint) and patched with the final size when the take ends.
//
// TakeFile belongs to the writer thread while it runs; the host thread
// touches it only before the writer starts and after it is joined.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <thread>

#include "frame/resampler.hpp"
#include "recorder/aligner.hpp"
#include "recorder/capture_ring.hpp"
#include "recorder/source_track.hpp"

namespace ws::recorder {

inline constexpr size_t kScratchSamples = 16384;  // largest chunk converted and written at once
inline constexpr uint64_t kCheckpointSamples = 220500;  // 5 s at 44100 Hz
inline constexpr auto kWriterPeriod = std::chrono::milliseconds(8);

// Tests only: while set, the writer thread's passes are skipped, as a stalled
// disk would hold them, so the capture ring fills and the callback drops
// periods. Nothing in the library sets it; a pass costs one relaxed load.
inline std::atomic<bool> g_writer_held_for_tests{false};

// x * 32767 in 32-bit float, truncated toward zero, clamped to 16 bits.
// Full scale -1.0 gives -32767, symmetric with +1.0; -32768 only comes from
// input below -1. NaN and values from 65538 up give -32768: that is what
// the truncating conversion's out-of-range result (the most negative
// integer) becomes after clamping, and it is kept on every platform.
int16_t to_take_sample(float x);

// Writes the 44-byte header for `data_bytes` (used as unsigned) at offset 0
// in one write. Neither restores the position nor flushes.
bool write_take_header(std::FILE* file, int32_t data_bytes);

class TakeFile {
public:
    TakeFile() = default;
    ~TakeFile() { finish(); }
    TakeFile(const TakeFile&) = delete;
    TakeFile& operator=(const TakeFile&) = delete;

    // Creates (or truncates) the file at `utf8_path` and writes the
    // provisional header. False when the file cannot be opened.
    bool create(const char* utf8_path);
    bool is_open() const { return file_ != nullptr; }

    // Appends n samples; returns how many reached the file. A short write
    // sets the write error.
    size_t append(const int16_t* samples, size_t n);
    // Rewrites the header for what is written so far and flushes.
    void checkpoint();
    // Patches the header with the final size and closes.
    void finish();
    // Closes without touching the header.
    void close();

    uint64_t samples_written() const { return samples_written_; }
    bool write_error() const { return write_error_.load(); }
    void clear_write_error() { write_error_.store(false); }

private:
    std::FILE* file_ = nullptr;
    uint64_t samples_written_ = 0;
    std::atomic<bool> write_error_{false};
};

// Moves captured samples from the ring into the take: every 8 ms it takes
// silence for dropped periods, then whatever the ring holds, through the
// aligner (which repairs a moved round trip) and the conversion from the
// device rate to the take's 44100 Hz, into the file; then a header
// checkpoint when 5 s of audio have been added since the last one. It ends
// at its first short write; the recording itself goes on.
class TakeWriter {
public:
    TakeWriter(CaptureRing& ring, TakeFile& take);
    ~TakeWriter() { stop(); }
    TakeWriter(const TakeWriter&) = delete;
    TakeWriter& operator=(const TakeWriter&) = delete;

    // Host thread, before start: the backing as the device plays it (for
    // the aligner), the frame it starts from, and the device rate.
    void prepare(const float* backing, int64_t backing_frames, int64_t start_frame, uint32_t device_rate);
    // Host thread: start the thread / clear the running flag and join it.
    void start();
    void stop();
    bool has_thread() const { return thread_.joinable(); }

    // One pass of the thread's loop. False after a short write (the thread
    // then ends). Public so tests and benchmarks can drive it directly.
    bool pass();
    // Stop's final drain, after the thread was joined: what is left in the
    // ring goes into the take, and the conversion's tail. Dropped periods
    // still owed are not padded.
    void drain_rest();

    // Round-trip repairs in this take (host thread once joined; any
    // thread as it stands otherwise).
    int32_t repairs() const { return repairs_.load(); }

private:
    void loop();
    bool drain_ring();
    void release(bool all);
    bool write_frames(const float* x, size_t n);  // device rate, converted
    bool write_converted(const float* y, size_t n);  // at 44100 Hz

    CaptureRing& ring_;
    TakeFile& take_;
    std::unique_ptr<float[]> float_scratch_;
    std::unique_ptr<int16_t[]> pcm_scratch_;
    Aligner aligner_;
    frame::Resampler resampler_{kRecorderRate, kRecorderRate};
    std::unique_ptr<float[]> converted_;
    size_t converted_size_ = 0;
    std::atomic<int32_t> repairs_{0};
    bool failed_ = false;
    uint64_t last_checkpoint_ = 0;
    std::atomic<bool> running_{false};
    std::thread thread_;
};

}  // namespace ws::recorder
