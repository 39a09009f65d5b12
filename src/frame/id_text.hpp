// The text form of an audio device's identity: the significant bytes of its
// 256-byte id (trailing zeros trimmed) as lower-case hex, high nibble first.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ws::frame {

inline constexpr size_t kDeviceIdBytes = 256;
inline constexpr size_t kMaxIdTextChars = 2 * kDeviceIdBytes;

// Position of the last non-zero byte plus one (0 for an all-zero id).
size_t significant_length(const uint8_t* id);

// Writes 2 * significant_length characters and a NUL into out, which must
// hold at least that many bytes. Returns the character count.
size_t write_id_text(const uint8_t* id, char* out);

// Decodes a text into a zero-filled 256-byte id. Accepts only a non-empty
// text of even length up to 512 characters made of hex digits (either case).
bool parse_id_text(const char* text, uint8_t* id);

}  // namespace ws::frame
