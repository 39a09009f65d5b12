// SPDX-License-Identifier: MIT
// woodshed align: where the backing track lies in a take (ta_analyze).
#include <chrono>
#include <cstdio>
#include <string>

#include "cli.hpp"
#include "json_out.hpp"
#include "takes_cli.hpp"
#include "woodshed/takes.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {{"from", true}, {"range", true}, {"json", false}};

int run_align(std::span<const std::string> args) {
    const Options opts("align", args, kSpecs);
    if (opts.help()) {
        std::fputs(kAlignCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(2, "a backing track and a take (BACKING TAKE)");
    const auto start = std::chrono::steady_clock::now();
    // align writes nothing, so its copies go to the temporary folder.
    const takes::Input backing = takes::prepare(opts.positionals()[0], "");
    const takes::Input take = takes::prepare(opts.positionals()[1], "");
    takes::check_pair(backing, take);
    const int32_t from_ms = takes::offset_ms(opts, backing);
    const auto [lo_ms, hi_ms] = takes::range_ms(opts, take);

    TakeAnalysis a{};
    takes::check(ta_analyze(backing.library_path.c_str(), take.library_path.c_str(), from_ms, lo_ms, hi_ms, &a),
                 backing, take);
    if (opts.flag("json")) {
        print_json({{"backing", backing.path},
                    {"take", take.path},
                    {"delay_frames", a.delay_frames},
                    {"delay_ms", 1000.0 * static_cast<double>(a.delay_frames) / a.sample_rate},
                    {"sample_rate", a.sample_rate},
                    {"score", a.score},
                    {"valid", a.valid == 1}});
    } else {
        takes::print_delay(a);
    }
    takes::print_elapsed(start);
    if (a.valid != 1) {
        std::fprintf(stderr, "woodshed: no trustworthy delay between %d and %d ms\n", lo_ms, hi_ms);
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

const Command kAlignCommand = {
    "align",
    "align BACKING TAKE [options]",
    "find the delay at which the backing track appears in a take",
    "usage: woodshed align BACKING TAKE [options]\n"
    "\n"
    "Finds where the backing track lies in a take recorded while it played:\n"
    "the delay in frames and ms, a score (8 or more is a clear peak) and\n"
    "whether the delay can be trusted. Both files: WAV (8, 16, 24 or 32-bit,\n"
    "float), FLAC or MP3, at the same sample rate; '-' reads one of them from\n"
    "stdin. Files the take tools cannot read directly are converted to a\n"
    "private temporary copy first.\n"
    "\n"
    "options:\n"
    "  --from SECONDS     where in the backing track the take began (default 0)\n"
    "  --range MIN..MAX   delays to search, in ms; negative if the take leads\n"
    "                     (default 0..500)\n"
    "  --json             one JSON object: backing, take, delay_frames,\n"
    "                     delay_ms, sample_rate, score, valid\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 a trustworthy delay, 1 none found (the best guess is still\n"
    "printed), 2 bad usage (also --from or --range outside the files), 3 a file\n"
    "unreadable or unusable (the message names it), 5 stdout not written.\n",
    run_align,
};

}  // namespace cli
