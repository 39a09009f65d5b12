// woodshed align: where the backing track lies in a take (ta_analyze).
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "cli.hpp"
#include "takes_cli.hpp"
#include "woodshed/takes.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {{"from", true}, {"range", true}};

int run_align(std::span<const std::string> args) {
    const Options opts("align", args, kSpecs);
    if (opts.help()) {
        std::fputs(kAlignCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(2, "a backing track and a take (BACKING TAKE)");
    const std::string& backing = opts.positionals()[0];
    const std::string& take = opts.positionals()[1];
    const int32_t from_ms = takes::offset_ms(opts);
    const auto [lo_ms, hi_ms] = takes::range_ms(opts);

    const auto start = std::chrono::steady_clock::now();
    TakeAnalysis a{};
    const int32_t rc = ta_analyze(backing.c_str(), take.c_str(), from_ms, lo_ms, hi_ms, &a);
    takes::check(rc, backing, take);
    takes::print_delay(a);
    takes::print_elapsed(start);
    return kExitOk;
}

}  // namespace

const Command kAlignCommand = {
    "align",
    "align BACKING TAKE [options]",
    "find the delay at which the backing track appears in a take",
    "usage: woodshed align BACKING.wav TAKE.wav [options]\n"
    "\n"
    "Finds where the backing track lies in a take recorded while it played:\n"
    "the delay in frames and ms, a score (8 or more is a clear peak) and\n"
    "whether the delay can be trusted. Both files: 16-bit PCM WAV, mono or\n"
    "stereo, at the same sample rate.\n"
    "\n"
    "options:\n"
    "  --from SECONDS     where in the backing track the take began (default 0)\n"
    "  --range MIN..MAX   delays to search, in ms; negative if the take leads\n"
    "                     (default 0..500)\n"
    "  -h, --help         show this help\n",
    run_align,
};

}  // namespace cli
