// Feeds arbitrary bytes to the take loader as a WAV file. The first input
// byte chooses a skip, the rest is the file. Besides the sanitizers'
// checks it aborts when a loaded stream breaks what the loader promises:
// samples in [-1, 1), no more frames than the bytes can hold, a rate of at
// least 1, and a skip that drops exactly the first frames.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "takes/take_file.hpp"

namespace {

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_take_loader: broken invariant: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // Small skips inside typical seed files, and a few far beyond them.
    const uint64_t skip = data[0] < 240 ? data[0] : (uint64_t{1} << (data[0] - 208));
    const uint8_t* file = data + 1;
    const size_t bytes = size - 1;

    std::vector<float> all, skipped;
    uint32_t rate = 0, rate_skipped = 0;
    const bool ok = ws::takes::load_take_wav_bytes(file, bytes, 0, all, rate);
    const bool ok_skipped = ws::takes::load_take_wav_bytes(file, bytes, skip, skipped, rate_skipped);
    check(ok == ok_skipped, "the skip changed whether the file loads");
    if (!ok) return 0;
    check(rate >= 1 && rate <= 0x7FFFFFFFu && rate == rate_skipped, "rate");
    check(all.size() <= bytes / 2, "more frames than the bytes hold");
    for (float v : all) check(v >= -1.0f && v < 1.0f, "sample out of range");
    const size_t dropped = skip < all.size() ? static_cast<size_t>(skip) : all.size();
    check(skipped.size() == all.size() - dropped, "skip length");
    for (size_t i = 0; i < skipped.size(); ++i) check(skipped[i] == all[dropped + i], "skip content");
    return 0;
}
