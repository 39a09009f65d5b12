// woodshed clean: remove the backing track that leaked into a take
// (ta_clean), finding the delay first unless it is given.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "cli.hpp"
#include "takes_cli.hpp"
#include "woodshed/takes.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {{"delay", true}, {"from", true}, {"range", true}, {"force", false}};

int run_clean(std::span<const std::string> args) {
    const Options opts("clean", args, kSpecs);
    if (opts.help()) {
        std::fputs(kCleanCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(2, "a backing track and a take (BACKING TAKE)");
    const std::string& backing = opts.positionals()[0];
    const std::string& take = opts.positionals()[1];
    const int32_t from_ms = takes::offset_ms(opts);
    const auto start = std::chrono::steady_clock::now();

    int64_t delay = 0;
    if (const auto given = opts.value("delay")) {
        delay = static_cast<int64_t>(std::llround(parse_number("delay", *given, -1e12, 1e12)));
    } else {
        const auto [lo_ms, hi_ms] = takes::range_ms(opts);
        TakeAnalysis a{};
        takes::check(ta_analyze(backing.c_str(), take.c_str(), from_ms, lo_ms, hi_ms, &a), backing, take);
        takes::print_delay(a);
        if (a.valid != 1 && !opts.flag("force")) {
            throw Failure("no trustworthy delay found; nothing changed (give --delay, or --force to clean anyway)");
        }
        delay = a.delay_frames;
    }

    TakeCleaning c{};
    takes::check(ta_clean(backing.c_str(), take.c_str(), from_ms, delay, &c), backing, take);
    if (c.cleaned == 1) {
        std::printf("cleaned %s: %.1f dB removed (delay %lld frames)\n", take.c_str(), c.reduction_db,
                    static_cast<long long>(c.delay_frames));
    } else {
        std::printf("left %s as it was: subtracting the backing would not make it quieter (delay %lld frames)\n",
                    take.c_str(), static_cast<long long>(c.delay_frames));
    }
    takes::print_elapsed(start);
    return kExitOk;
}

}  // namespace

const Command kCleanCommand = {
    "clean",
    "clean BACKING TAKE [options]",
    "remove the backing track that leaked into a take (rewrites the take)",
    "usage: woodshed clean BACKING.wav TAKE.wav [options]\n"
    "\n"
    "Removes the backing track that the microphone picked up while the take\n"
    "was recorded, and rewrites the take in place as 16-bit mono PCM (the old\n"
    "file stays until the new one is complete). Without --delay the delay is\n"
    "found first, as 'woodshed align' does, and a take whose delay cannot be\n"
    "trusted is left alone unless --force is given.\n"
    "\n"
    "options:\n"
    "  --delay FRAMES     the delay of the backing in the take, from 'align'\n"
    "  --from SECONDS     where in the backing track the take began (default 0)\n"
    "  --range MIN..MAX   delays to search when --delay is not given, in ms\n"
    "                     (default 0..500)\n"
    "  --force            clean even when the delay found is not trustworthy\n"
    "  -h, --help         show this help\n",
    run_clean,
};

}  // namespace cli
