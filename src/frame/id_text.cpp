#include "frame/id_text.hpp"

#include <cstring>

namespace ws::frame {

namespace {
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

size_t significant_length(const uint8_t* id) {
    size_t n = kDeviceIdBytes;
    while (n > 0 && id[n - 1] == 0) --n;
    return n;
}

size_t write_id_text(const uint8_t* id, char* out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const size_t n = significant_length(id);
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = kDigits[id[i] >> 4];
        out[2 * i + 1] = kDigits[id[i] & 0x0F];
    }
    out[2 * n] = '\0';
    return 2 * n;
}

bool parse_id_text(const char* text, uint8_t* id) {
    std::memset(id, 0, kDeviceIdBytes);
    if (text == nullptr) return false;
    const size_t len = strnlen(text, kMaxIdTextChars + 1);
    if (len == 0 || len % 2 != 0 || len > kMaxIdTextChars) return false;
    for (size_t i = 0; i < len; i += 2) {
        const int hi = hex_value(text[i]), lo = hex_value(text[i + 1]);
        if (hi < 0 || lo < 0) {
            std::memset(id, 0, kDeviceIdBytes);
            return false;
        }
        id[i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return true;
}

}  // namespace ws::frame
