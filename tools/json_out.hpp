// SPDX-License-Identifier: MIT
// Machine-readable output: one JSON object per line on stdout (--json).
#pragma once

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

namespace cli {

// Keys stay in the order they were set, as a reader of the output expects.
using Json = nlohmann::ordered_json;

inline void print_json(const Json& j) {
    // Names come from the user's files and devices: replace what is not
    // UTF-8 instead of failing on it.
    const std::string line = j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
}

}  // namespace cli
