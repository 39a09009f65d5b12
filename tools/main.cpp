// SPDX-License-Identifier: MIT
// woodshed: command-line front end. Each subcommand lives in its own
// cmd_*.cpp and registers itself in the table below.
#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
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

// ---- generated documentation -------------------------------------------
// The man page and the shell completions are made from the help texts at
// build time, so they cannot drift from what the program says.

// A help text as roff: verbatim, with roff's control characters escaped.
void print_roff_block(const char* text) {
    std::fputs(".nf\n", stdout);
    bool line_start = true;
    for (const char* p = text; *p != '\0'; ++p) {
        if (line_start && (*p == '.' || *p == '\'')) std::fputs("\\&", stdout);
        if (*p == '\\') {
            std::fputs("\\e", stdout);
        } else if (*p == '-') {
            std::fputs("\\-", stdout);
        } else {
            std::fputc(*p, stdout);
        }
        line_start = *p == '\n';
    }
    std::fputs(".fi\n", stdout);
}

void print_man() {
    std::printf(".TH WOODSHED 1 \"\" \"woodshed %s\" \"User Commands\"\n", WOODSHED_VERSION);
    std::fputs(".SH NAME\nwoodshed \\- practice tools on the command line: tuner, metronome, recorder, take tools\n"
               ".SH SYNOPSIS\n", stdout);
    for (const cli::Command* c : kCommands) {
        std::printf(".B woodshed\n%.*s\n.br\n", static_cast<int>(c->synopsis.size()), c->synopsis.data());
    }
    std::fputs(".SH DESCRIPTION\n", stdout);
    for (const cli::Command* c : kCommands) {
        std::printf(".SS %.*s\n", static_cast<int>(c->name.size()), c->name.data());
        print_roff_block(c->help);
    }
    std::fputs(".SH EXIT STATUS\n0 done; 1 no result; 2 bad usage; 3 an input file unreadable or unusable; 4 no "
               "usable audio device; 5 output not written; 130 interrupted.\n", stdout);
}

// The long options a command's help lists, in order, each once.
std::vector<std::string> options_of(const cli::Command& c) {
    std::vector<std::string> found;
    const std::string text = c.help;
    for (size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at + 2)) {
        size_t end = at + 2;
        while (end < text.size() && (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '-')) ++end;
        // Only where an option is described: at the start of an options line.
        const size_t line = text.rfind('\n', at) + 1;
        const std::string before = text.substr(line, at - line);
        if (end == at + 2 || (before.find_first_not_of(' ') != std::string::npos && before != "  -h, ")) continue;
        const std::string option = text.substr(at, end - at);
        if (std::find(found.begin(), found.end(), option) == found.end()) found.push_back(option);
    }
    return found;
}

void print_completion(const std::string& shell) {
    if (shell == "bash") {
        std::fputs("# bash completion for woodshed\n_woodshed() {\n"
                   "  local cur=${COMP_WORDS[COMP_CWORD]} opts\n"
                   "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n    COMPREPLY=($(compgen -W \"", stdout);
        for (const cli::Command* c : kCommands) std::printf("%.*s ", static_cast<int>(c->name.size()), c->name.data());
        std::fputs("help --help --version\" -- \"$cur\"))\n    return\n  fi\n  case ${COMP_WORDS[1]} in\n", stdout);
        for (const cli::Command* c : kCommands) {
            std::printf("    %.*s) opts=\"", static_cast<int>(c->name.size()), c->name.data());
            for (const std::string& o : options_of(*c)) std::printf("%s ", o.c_str());
            std::fputs("\";;\n", stdout);
        }
        std::fputs("  esac\n  if [[ $cur == -* ]]; then\n    COMPREPLY=($(compgen -W \"$opts\" -- \"$cur\"))\n"
                   "  else\n    COMPREPLY=($(compgen -f -- \"$cur\"))\n  fi\n}\n"
                   "complete -o filenames -F _woodshed woodshed\n", stdout);
    } else {
        std::fputs("#compdef woodshed\n# zsh completion for woodshed\n_woodshed() {\n"
                   "  if (( CURRENT == 2 )); then\n    compadd -- ", stdout);
        for (const cli::Command* c : kCommands) std::printf("%.*s ", static_cast<int>(c->name.size()), c->name.data());
        std::fputs("help\n    return\n  fi\n  local -a opts\n  case $words[2] in\n", stdout);
        for (const cli::Command* c : kCommands) {
            std::printf("    %.*s) opts=(", static_cast<int>(c->name.size()), c->name.data());
            for (const std::string& o : options_of(*c)) std::printf("%s ", o.c_str());
            std::fputs(");;\n", stdout);
        }
        std::fputs("  esac\n  if [[ $PREFIX == -* ]]; then\n    compadd -- $opts\n  else\n    _files\n  fi\n}\n"
                   "_woodshed \"$@\"\n", stdout);
    }
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
    // For the build: woodshed.1 and the completions (not in the overview).
    if (first == "--man") {
        print_man();
        return cli::kExitOk;
    }
    if (first == "--completion" && args.size() == 2 && (args[1] == "bash" || args[1] == "zsh")) {
        print_completion(args[1]);
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
    } catch (const cli::InputError& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitInput;
    } catch (const cli::DeviceError& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitDevice;
    } catch (const cli::OutputError& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return cli::kExitOutput;
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

// Whatever ran, output that did not reach stdout (a full disk, a closed
// pipe) is a failure of its own.
int finish(int status) {
    if (status == cli::kExitOutput) return status;  // said already
    try {
        cli::check_stdout();
    } catch (const cli::OutputError& e) {
        std::fprintf(stderr, "woodshed: %s\n", e.what());
        return status != cli::kExitOk ? status : cli::kExitOutput;
    }
    return status;
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
    return finish(run(args));
}
#else
int main(int argc, char** argv) {
#  if defined(SIGPIPE)
    // A closed pipe is a write error to report, not a silent death.
    std::signal(SIGPIPE, SIG_IGN);
#  endif
    return finish(run(std::vector<std::string>(argv + 1, argv + argc)));
}
#endif
