// Feeds arbitrary text to the device id-text parser. Besides the
// sanitizers' checks it aborts when a text that parses does not come back
// as the same id through the writer (lower case, trailing zero bytes
// trimmed), or when the written text does not parse.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/id_text.hpp"

namespace {
void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_id_text: broken invariant: %s\n", what);
    std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace ws::frame;
    const std::string text(reinterpret_cast<const char*>(data), size);  // stops at an embedded NUL
    uint8_t id[kDeviceIdBytes];
    std::memset(id, 0xA5, sizeof id);
    if (!parse_id_text(text.c_str(), id)) return 0;
    const size_t len = std::strlen(text.c_str());
    check(len > 0 && len % 2 == 0 && len <= kMaxIdTextChars, "accepted length");
    for (size_t i = len / 2; i < kDeviceIdBytes; ++i) check(id[i] == 0, "id not zero-filled");
    char written[kMaxIdTextChars + 1];
    const size_t n = write_id_text(id, written);
    check(n == 2 * significant_length(id) && std::strlen(written) == n, "written length");
    for (size_t i = 0; i < n; ++i) {
        check(std::tolower(static_cast<unsigned char>(text[i])) == written[i], "written text");
    }
    uint8_t again[kDeviceIdBytes];
    check(n == 0 || parse_id_text(written, again), "written text does not parse");
    check(n == 0 || std::memcmp(id, again, sizeof id) == 0, "round trip");
    return 0;
}
