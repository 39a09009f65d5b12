// SPDX-License-Identifier: MIT
// What the align and clean commands share: reading any audio file the
// program decodes into what the take tools take (16-bit PCM WAV, mono or
// stereo) through a private temporary copy, the checks of the options
// against the files, the library's result codes as messages, the report.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "audio_files.hpp"
#include "cli.hpp"
#include "woodshed/takes.h"

namespace cli::takes {

// One file as the take tools will read it.
struct Input {
    std::string path;          // the user's
    std::string library_path;  // the file itself, or the converted copy
    std::unique_ptr<TempFile> copy;
    FileFacts facts;
    std::string encoding;  // "24-bit PCM WAV", "FLAC", ...
    uint32_t rate = 0;
    uint32_t channels = 0;
    uint64_t frames = 0;
};

// The file itself when the take tools read it as it is; otherwise a 16-bit
// copy made next to `temp_beside` (the system's temporary folder if empty).
// `convert` forces the copy. InputErrors name the file.
Input prepare(const std::string& path, const std::string& temp_beside, bool convert = false);

// One rate for both, two different files: otherwise an InputError or a
// UsageError.
void check_pair(const Input& backing, const Input& take);

// --from SECONDS as whole ms, inside the backing.
int32_t offset_ms(const Options& opts, const Input& backing);

// --range MIN..MAX in ms (default 0..500), reaching into the take.
std::pair<int32_t, int32_t> range_ms(const Options& opts, const Input& take);

// A failing result code as the command's one-line failure.
void check(int32_t rc, const Input& backing, const Input& take);

// The analysis: as lines, or as one JSON object with `extra` keys.
void print_delay(const TakeAnalysis& a);

// Long files take a noticeable while; say how long.
void print_elapsed(std::chrono::steady_clock::time_point start);

}  // namespace cli::takes
