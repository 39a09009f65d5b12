// woodshed: command-line front end. Each subcommand lives in its own
// cmd_*.cpp and registers itself in the table below.
#include <array>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "cli.hpp"
#include "woodshed/woodshed.h"

#include "windows.hpp"

#ifndef WOODSHED_VERSION
#  define WOODSHED_VERSION "unknown"
#endif

namespace {

constexpr auto kCommands = std::to_array<const cli::Command*>({
    &cli::kDemoCommand,
    &cli::kTuneCommand,
    &cli::kToneCommand,
    &cli::kClickCommand,
    &cli::kDevicesCommand,
    &cli::kRecordCommand,
    &cli::kAlignCommand,
    &cli::kCleanCommand,
    &cli::kReportCommand,
});

const cli::Command* find_command(const std::string& name) {
    for (const cli::Command* c : kCommands) {
        if (c->name == name) return c;
    }
    return nullptr;
}

void print_overview(FILE* to) {
    std::fputs(
        "woodshed: practice tools on the command line\n"
        "\n"
        "usage: woodshed COMMAND [options]\n"
        "       woodshed help [COMMAND]\n"
        "       woodshed --version\n"
        "\n"
        "commands:\n",
        to);
    for (const cli::Command* c : kCommands) {
        std::fprintf(to, "  %-28.*s %.*s\n", static_cast<int>(c->synopsis.size()),
                     c->synopsis.data(), static_cast<int>(c->summary.size()), c->summary.data());
    }
    std::fputs("\nRun 'woodshed COMMAND --help' for the options of a command.\n", to);
}

int unknown_command(const std::string& name) {
    std::fprintf(stderr, "woodshed: unknown command '%s' (see 'woodshed --help')\n", name.c_str());
    return cli::kExitUsage;
}

int run(const std::vector<std::string>& args) {
    if (args.empty()) {
        print_overview(stderr);
        return cli::kExitUsage;
    }
    const std::string& first = args[0];
    if (first == "-h" || first == "--help") {
        print_overview(stdout);
        return cli::kExitOk;
    }
    if (first == "--version") {
        std::printf("woodshed %s (library interface %d)\n", WOODSHED_VERSION,
                    static_cast<int>(tn_abi_version()));
        return cli::kExitOk;
    }
    if (first == "help") {
        if (args.size() == 1) {
            print_overview(stdout);
            return cli::kExitOk;
        }
        const cli::Command* c = find_command(args[1]);
        if (c == nullptr) return unknown_command(args[1]);
        std::fputs(c->help, stdout);
        return cli::kExitOk;
    }
    if (first.size() > 1 && first[0] == '-') {
        std::fprintf(stderr, "woodshed: unknown option '%s' (see 'woodshed --help')\n",
                     first.c_str());
        return cli::kExitUsage;
    }
    const cli::Command* c = find_command(first);
    if (c == nullptr) return unknown_command(first);

    const std::vector<std::string> rest(args.begin() + 1, args.end());
    try {
        return c->run(rest);
    } catch (const cli::UsageError& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitUsage;
    } catch (const cli::Failure& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitFailure;
    } catch (const std::bad_alloc&) {
        std::fputs("woodshed: out of memory\n", stderr);
        return cli::kExitFailure;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitFailure;
    }
}

}  // namespace

#if defined(_WIN32)
// Wide entry point so file names outside the ANSI code page survive; the rest
// of the program works in UTF-8.
int wmain(int argc, wchar_t** argv) {
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const int n = WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, nullptr, 0, nullptr, nullptr);
        std::string s(n > 0 ? static_cast<size_t>(n - 1) : 0, '\0');
        if (n > 1) WideCharToMultiByte(CP_UTF8, 0, argv[i], -1, s.data(), n, nullptr, nullptr);
        args.push_back(std::move(s));
    }
    return run(args);
}
#else
int main(int argc, char** argv) { return run(std::vector<std::string>(argv + 1, argv + argc)); }
#endif
