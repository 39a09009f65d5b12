// Device id text: spelling, parsing and the bounded record field.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "frame/id_text.hpp"

namespace {

using ws::frame::kDeviceIdBytes;

struct Id {
    uint8_t bytes[kDeviceIdBytes] = {};
};

std::string text_of(const Id& id) {
    char buf[2 * kDeviceIdBytes + 1];
    ws::frame::write_id_text(id.bytes, buf);
    return buf;
}

TEST(IdText, SpellsSignificantBytesInLowerCaseHexAndParsesBack) {
    Id id;
    EXPECT_EQ(ws::frame::significant_length(id.bytes), 0u);
    EXPECT_EQ(text_of(id), "");
    id.bytes[0] = 0xAB;
    id.bytes[1] = 0x00;  // inner zeros are significant
    id.bytes[2] = 0x0F;
    EXPECT_EQ(ws::frame::significant_length(id.bytes), 3u);
    EXPECT_EQ(text_of(id), "ab000f");
    Id full;
    std::memset(full.bytes, 0xFF, sizeof full.bytes);
    EXPECT_EQ(text_of(full), std::string(512, 'f'));
    // Parsing takes either case and zero-fills the rest: the round trip ends at the third byte.
    std::memset(full.bytes, 0x55, sizeof full.bytes);
    ASSERT_TRUE(ws::frame::parse_id_text("AB000F", full.bytes));
    EXPECT_EQ(text_of(full), "ab000f");
}

TEST(IdText, RejectsMalformedTexts) {
    const std::string too_long(514, 'a');
    const std::string longest(512, 'a');
    struct Row { const char* text; bool ok; };
    const Row rows[] = {
        {nullptr, false}, {"", false},  {"abc", false}, {"0g", false}, {"g0", false},
        {"12 4", false},  {too_long.c_str(), false},      {longest.c_str(), true}, {"fF", true},
    };
    for (const auto& r : rows) {
        Id id;
        EXPECT_EQ(ws::frame::parse_id_text(r.text, id.bytes), r.ok) << (r.text ? r.text : "(null)");
        if (!r.ok) {
            Id zero;
            EXPECT_EQ(std::memcmp(id.bytes, zero.bytes, kDeviceIdBytes), 0);
        }
    }
}

}  // namespace
