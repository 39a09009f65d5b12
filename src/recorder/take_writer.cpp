#include "recorder/take_writer.hpp"

#include <algorithm>
#include <climits>
#include <cstring>

#include "frame/platform.hpp"
#include "frame/wav_header.hpp"
#include "recorder/source_track.hpp"

namespace ws::recorder {

int16_t to_take_sample(float x) {
    const float v = x * 32767.0f;
    // The conversion itself is undefined in C++ outside int's range; spell
    // out what the truncating instruction yields there (INT_MIN) so every
    // compiler and sanitizer agrees.
    const int32_t i = (v >= -2147483648.0f && v < 2147483648.0f) ? static_cast<int32_t>(v) : INT32_MIN;
    if (i >= 32768) return 32767;
    if (i < -32768) return -32768;
    return static_cast<int16_t>(i);
}

bool write_take_header(std::FILE* file, int32_t data_bytes) {
    const auto header = frame::mono16_wav_header(kRecorderRate, static_cast<uint32_t>(data_bytes));
    if (std::fseek(file, 0, SEEK_SET) != 0) return false;
    return std::fwrite(header.data(), 1, header.size(), file) == header.size();
}

namespace {
// The 32-bit size fields simply wrap past 4 GiB of data (about 13.5 hours).
int32_t data_bytes_of(uint64_t samples) { return static_cast<int32_t>(static_cast<uint32_t>(samples * 2)); }
}  // namespace

bool TakeFile::create(const char* utf8_path) {
    close();
    file_ = platform::open_file(utf8_path, "wb");
    if (file_ == nullptr) return false;
    // Unbuffered: every sample counted as written has been handed to the
    // system, so the header patched at the end never claims samples that a
    // full disk later refused to take out of a stream buffer. The writer
    // already writes in chunks, so the buffer would save nothing.
    std::setvbuf(file_, nullptr, _IONBF, 0);
    samples_written_ = 0;
    write_take_header(file_, 0);
    return true;
}

size_t TakeFile::append(const int16_t* samples, size_t n) {
    if (file_ == nullptr || n == 0) return 0;
    const size_t written = std::fwrite(samples, sizeof(int16_t), n, file_);
    samples_written_ += written;
    if (written < n) write_error_.store(true);
    return written;
}

void TakeFile::checkpoint() {
    if (file_ == nullptr) return;
    write_take_header(file_, data_bytes_of(samples_written_));
    // The take only grows at its end, so that is where writing resumes; no
    // position query is needed (a 32-bit long could not hold one past 2 GiB
    // on Windows).
    std::fseek(file_, 0, SEEK_END);
    std::fflush(file_);
}

void TakeFile::finish() {
    if (file_ == nullptr) return;
    write_take_header(file_, data_bytes_of(samples_written_));
    close();
}

void TakeFile::close() {
    if (file_ == nullptr) return;
    std::fclose(file_);
    file_ = nullptr;
}

TakeWriter::TakeWriter(CaptureRing& ring, TakeFile& take)
    : ring_(ring), take_(take), float_scratch_(new float[kScratchSamples]()),
      pcm_scratch_(new int16_t[kScratchSamples]()) {}

void TakeWriter::prepare(const float* backing, int64_t backing_frames, int64_t start_frame,
                         uint32_t device_rate) {
    aligner_.prepare(backing, backing_frames, start_frame, device_rate);
    resampler_ = frame::Resampler(device_rate, kRecorderRate);
    const size_t need = std::max(resampler_.max_output(kScratchSamples), resampler_.max_output(0));
    if (need > converted_size_) {
        converted_.reset(new float[need]);
        converted_size_ = need;
    }
    repairs_.store(0);
    failed_ = false;
}

void TakeWriter::start() {
    stop();
    last_checkpoint_ = 0;
    running_.store(true);
    thread_ = platform::start_thread([this] { loop(); });
}

void TakeWriter::stop() {
    running_.store(false);
    if (thread_.joinable()) thread_.join();
}

void TakeWriter::loop() {
    if (!running_.load()) return;
    for (;;) {
        if (!g_writer_held_for_tests.load(std::memory_order_relaxed) && !pass()) return;
        std::this_thread::sleep_for(kWriterPeriod);
        if (!running_.load()) return;
    }
}

bool TakeWriter::pass() {
    if (failed_) return false;
    // Silence for dropped periods comes first, ahead of samples that were
    // already waiting when the drop happened: the gap may land up to one
    // ring's content early, but the take's length stays exact.
    uint64_t owed = ring_.take_dropped();
    while (owed > 0 && take_.is_open()) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(owed, kScratchSamples));
        std::fill_n(float_scratch_.get(), n, 0.0f);
        aligner_.push(float_scratch_.get(), n);
        release(false);
        owed -= n;
    }
    if (!drain_ring()) return false;
    repairs_.store(aligner_.repairs());
    if (failed_) return false;
    if (take_.is_open() && take_.samples_written() - last_checkpoint_ >= kCheckpointSamples) {
        last_checkpoint_ = take_.samples_written();
        take_.checkpoint();
    }
    return true;
}

void TakeWriter::drain_rest() {
    if (!take_.is_open()) return;
    drain_ring();
    release(true);
    const size_t n = resampler_.flush(converted_.get());
    write_converted(converted_.get(), n);
}

bool TakeWriter::drain_ring() {
    if (!take_.is_open()) return true;
    // Each run goes on at once, so the aligner holds no more than its
    // look-ahead whatever the ring held.
    ring_.drain(float_scratch_.get(), kScratchSamples, [&](const float* run, size_t n) {
        aligner_.push(run, n);
        release(false);
    });
    return !failed_;
}

void TakeWriter::release(bool all) {
    aligner_.release([&](const float* x, size_t n) { write_frames(x, n); }, all);
    repairs_.store(aligner_.repairs());
}

bool TakeWriter::write_frames(const float* x, size_t n) {
    while (n > 0 && !failed_) {
        const size_t k = std::min(n, kScratchSamples);
        write_converted(converted_.get(), resampler_.process(x, k, converted_.get()));
        x += k;
        n -= k;
    }
    return !failed_;
}

bool TakeWriter::write_converted(const float* y, size_t n) {
    // After a short write the rest is let go: the disk refuses it anyway,
    // and the header must count only what arrived.
    int16_t* pcm = pcm_scratch_.get();
    while (n > 0 && !failed_) {
        const size_t k = std::min(n, kScratchSamples);
        for (size_t i = 0; i < k; ++i) pcm[i] = to_take_sample(y[i]);
        if (take_.append(pcm, k) < k) failed_ = true;
        y += k;
        n -= k;
    }
    return !failed_;
}

}  // namespace ws::recorder
