#!/usr/bin/env python3
"""Mutation check of the offline tests: do they notice when the code is wrong?

Applies a fixed list of small faults to a scratch copy of the tree, one at a
time (flipped comparisons, off-by-one constants, dropped statements, swapped
operands), rebuilds incrementally and runs the fast offline test binaries. A
mutant is killed when a test fails (or times out), survives when they all
pass. Sites are found by a pattern and its Nth occurrence, not by line, so the
list survives edits elsewhere in a file; a site that is gone is reported as
"site not found" and skipped.

Not part of CI: a full run takes tens of minutes.

    python3 scripts/mutate.py                    # every mutation
    python3 scripts/mutate.py --only src/metronome,src/frame
    python3 scripts/mutate.py --list             # list them, and check every site is found
    python3 scripts/mutate.py --sample 10 --seed 3   # a reproducible random subset
"""
import argparse
import collections
import os
import random
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The scratch tree keeps the same relative layout as a preset build
# (tree/build/<name>), so the compiler cache serves the unmutated objects.
TREE = os.path.join(ROOT, "build", "mutate-tree")
BUILD = os.path.join(TREE, "build", "mutate")

TESTS = ["test_frame", "test_nsdf", "test_tuner", "test_abi", "test_metronome",
         "test_metronome_realtime", "test_metronome_abi", "test_recorder", "test_takes",
         "test_takes_abi"]
TEST_TIMEOUT = 300  # a loaded machine runs the take tests for minutes

# (file, pattern, occurrence (1 = first), replacement). The pattern is a
# literal string unless it starts with "re:".
MUTATIONS = [
    # Scheduling
    ("src/metronome/core.cpp", "while (next_pulse_frame_ < end)", 1, "while (next_pulse_frame_ <= end)"),
    ("src/metronome/core.cpp", "if (++subdivision_ >= config_.subdivisions)", 1, "if (++subdivision_ > config_.subdivisions)"),
    ("src/metronome/core.cpp", "if (++beat_ >= config_.beats_per_bar)", 1, "if (++beat_ > config_.beats_per_bar)"),
    ("src/metronome/core.cpp", "next_pulse_frame_ += 1;", 1, "next_pulse_frame_ += 2;"),
    ("src/metronome/core.cpp", "pulse_remainder_ -= pulse_denominator_;", 1, ";"),
    ("src/metronome/core.cpp", "subdivision_ % 2 == 0 ? long_numerator_ : short_numerator_", 1,
     "subdivision_ % 2 == 0 ? short_numerator_ : long_numerator_"),
    ("src/metronome/core.cpp", "std::llround(config_.swing * 1000.0), 750)", 1, "std::llround(config_.swing * 1000.0), 700)"),
    ("src/metronome/core.cpp", "short_numerator_ = (1000 - s) * base * 2;", 1, "short_numerator_ = (1001 - s) * base * 2;"),
    ("src/metronome/core.cpp", "std::max<int64_t>(tempo_ / 1000, 1)", 1, "std::max<int64_t>(tempo_ / 1001, 1)"),
    ("src/metronome/core.cpp", "millibeats * config_.beat_divisor * config_.subdivisions", 1, "millibeats * config_.subdivisions"),
    ("src/metronome/core.cpp", "if (state_ == mn_state_count_in && bar_ >= 0)", 1, "if (state_ == mn_state_count_in && bar_ > 0)"),
    ("src/metronome/core.cpp", "bar_ % (c.play_bars + c.mute_bars) >= c.play_bars", 1, "bar_ % (c.play_bars + c.mute_bars) > c.play_bars"),
    ("src/metronome/core.cpp", "static_cast<double>(bar_) / c.ramp_interval_bars", 1, "static_cast<double>(bar_ + 1) / c.ramp_interval_bars"),
    ("src/metronome/core.cpp", "std::min(tempo_ + step, c.ramp_target_ubpm)", 1, "std::max(tempo_ + step, c.ramp_target_ubpm)"),
    ("src/metronome/core.cpp", "c.drop_probability > static_cast<double>(rng_)", 1, "c.drop_probability < static_cast<double>(rng_)"),
    ("src/metronome/core.cpp", "c.accent_gain * kMediumAccent", 1, "c.beat_gain * kMediumAccent"),
    ("src/metronome/core.cpp", "if (beat_dropped_ || c.subdivision_gain", 1, "if (c.subdivision_gain"),
    ("src/metronome/core.cpp", "pending_flag_ = true;", 1, ";"),
    ("src/metronome/core.cpp", "const float scale = 1.0f - static_cast<float>(i) / n;", 1, "const float scale = 1.0f - static_cast<float>(i) / n / 2.0f;"),
    ("src/metronome/core.cpp", "bar_ < 0 ? mn_state_count_in : mn_state_running", 1, "bar_ < 0 ? mn_state_running : mn_state_count_in"),
    ("src/metronome/core.cpp", "(pulse_numerator_ / 1000) * c.subdivisions * c.beats_per_bar", 1, "(pulse_numerator_ / 1000) * c.beats_per_bar"),
    ("src/metronome/core.cpp", "(through_limit && poly_next_frame_ == limit)", 1, "(!through_limit && poly_next_frame_ == limit)"),
    ("src/metronome/core.cpp", "-static_cast<int64_t>(config_.count_in_bars)", 1, "1 - static_cast<int64_t>(config_.count_in_bars)"),
    ("src/metronome/core.cpp", "s.bar = last_bar_;", 1, "s.bar = bar_;"),
    ("src/metronome/core.cpp", "config_.random_seed != 0 ? config_.random_seed : kDefaultSeed", 1, "kDefaultSeed"),
    ("src/metronome/config.cpp", "clamp_i32(in.beats_per_bar, 1, 32)", 1, "clamp_i32(in.beats_per_bar, 1, 31)"),
    ("src/metronome/config.cpp", "std::clamp(in.swing, 0.5, 0.75)", 1, "std::clamp(in.swing, 0.5, 0.7)"),
    ("src/metronome/config.cpp", "if (c.mute_bars >= 1 && c.play_bars < 1) c.play_bars = 1;", 1, ";"),
    ("src/metronome/config.cpp", "if (level > mn_level_accent)", 1, "if (level >= mn_level_accent)"),
    ("src/metronome/config.cpp", "if (!std::isfinite(v) || v < 0.0)", 1, "if (v < 0.0)"),
    ("src/metronome/voices.cpp", "if (v.position > chosen->position)", 1, "if (v.position >= chosen->position)"),
    ("src/metronome/voices.cpp", "if (v.position + n > v.length)", 1, "if (v.position + n >= v.length + 1)"),
    ("src/metronome/command_queue.hpp", "< N) return append(w, item);", 1, "< N - 1) return append(w, item);"),
    ("src/metronome/command_queue.hpp", "slots_[(w - 1) % N]", 1, "slots_[w % N]"),
    ("src/metronome/command_queue.hpp", "newest.item = item;", 1, ";"),
    ("src/metronome/sound_bank.cpp", "std::min<size_t>(n, 64)", 1, "std::min<size_t>(n, 0)"),
    ("src/metronome/sound_bank.cpp", "tables_[s][accent ? 1 : 0]", 1, "tables_[s][accent ? 0 : 1]"),
    # Ring, sequence lock, id text, WAV header
    ("src/frame/sample_ring.hpp", "if (!(r - w + Capacity >= count))", 1, "if (!(r - w + Capacity > count))"),
    ("src/frame/sample_ring.hpp", "if (count > first) std::memcpy", 1, "if (false) std::memcpy"),
    ("src/frame/sample_ring.hpp", "read_.store(r + run,", 1, "read_.store(r + run - 1,"),
    ("src/frame/sample_ring.hpp", "overflow_.store(1, std::memory_order_relaxed);", 1, ";"),
    ("src/frame/seqlock.hpp", "if (before & 1) continue;", 1, ";"),
    ("src/frame/seqlock.hpp", "if (sequence_.load(std::memory_order_relaxed) == before)", 1, "if (true)"),
    ("src/frame/id_text.cpp", "len == 0 || len % 2 != 0 ||", 1, "len == 0 ||"),
    ("src/frame/id_text.cpp", "while (n > 0 && id[n - 1] == 0)", 1, "while (n > 1 && id[n - 1] == 0)"),
    ("src/frame/wav_header.cpp", "data_bytes + 36u", 1, "data_bytes + 44u"),
    ("src/frame/wav_header.cpp", "sample_rate * 2u", 1, "sample_rate"),
    # Detector
    ("src/tuner/detector.cpp", "v[lag] >= 0.9 * highest", 1, "v[lag] >= 0.8 * highest"),
    ("src/tuner/detector.cpp", "while (v[tau] > 0.0 && tau < max_lag_) ++tau;", 1, ";"),
    ("src/tuner/detector.cpp", "refined = chosen + (a - cc) * 0.5 / den", 1, "refined = chosen + (cc - a) * 0.5 / den"),
    ("src/tuner/detector.cpp", "median)) > 80.0)", 1, "median)) > 800.0)"),
    ("src/tuner/detector.cpp", "p[n - tau] + (p[n] - p[tau])", 1, "p[n - tau] + (p[n] - p[tau + 1])"),
    # Take files and cleaning
    ("src/frame/wav_reader.cpp", "pos += uint64_t{size} + (size & 1u);", 1, "pos += uint64_t{size};"),
    ("src/frame/wav_reader.cpp", "if (tag == kFormatExtensible && want >= 40) tag = get_u16(body + 24);", 1, ";"),
    ("src/takes/take_file.cpp", "buffer[2 * i + 1]) * (1.0f / 65536.0f)", 1, "buffer[2 * i + 1]) * (1.0f / 32768.0f)"),
    ("src/takes/cleaning.cpp", "/ std::sqrt(variance) < 8.0)", 1, "/ std::sqrt(variance) < 80.0)"),
    ("src/takes/cleaning.cpp", "residual = static_cast<double>(peak + 2048) + delta;", 1, "residual = static_cast<double>(peak + 2048) - delta;"),
    ("src/takes/cleaning.cpp", "for (size_t k = 1; k < kTaps; ++k) c[kSmallFft - k]", 1, "for (size_t k = kTaps; k < kTaps; ++k) c[kSmallFft - k]"),
    ("src/takes/cleaning.cpp", "v -= x[kTaps + k].real();", 1, "v -= x[kTaps + k - 1].real();"),
    ("src/takes/cleaning.cpp", "b.size() < kMinCleanFrames", 1, "b.size() <= kMinCleanFrames"),
    ("src/takes/cleaning.cpp", "|| na == 0) return false;", 1, ") return false;"),
    ("src/takes/cleaning.cpp", "if (first.autoc[0] < 1e-9 ||", 1, "if (first.autoc[0] < -1.0 ||"),
    ("src/takes/cleaning.cpp", "report.changed = before > 0.0;", 1, "report.changed = true;"),
    ("src/takes/cleaning.cpp", "10.0 * std::log10(before / after)", 1, "10.0 * std::log10(after / before)"),
    ("src/takes/fft.hpp", "(inverse ? kTwoPi : -kTwoPi)", 1, "(inverse ? -kTwoPi : kTwoPi)"),
    ("src/takes/fft.hpp", "static_cast<T>(1.0 / static_cast<double>(n));", 1, "static_cast<T>(1.0);"),
    ("src/takes/analysis.cpp", "&& delay <= max_delay;", 1, ";"),
]


def locate(text, pattern, nth):
    rx = re.compile(pattern[3:]) if pattern.startswith("re:") else re.compile(re.escape(pattern))
    found = list(rx.finditer(text))
    return found[nth - 1].span() if len(found) >= nth else None


def run(cmd, timeout=None, cwd=None):
    try:
        p = subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           timeout=timeout, text=True)
        return p.returncode, p.stdout
    except subprocess.TimeoutExpired:
        return "timeout", ""


def sync_tree():
    """Copies the worktree's files into the scratch tree, changed ones only,
    so that the scratch build stays incremental."""
    wanted = set()
    for top, dirs, files in os.walk(ROOT):
        rel_top = os.path.relpath(top, ROOT)
        if rel_top == ".":
            dirs[:] = [d for d in dirs if d not in ("build", ".git")]
        for name in files:
            rel = os.path.normpath(os.path.join(rel_top, name))
            wanted.add(rel)
            src, dst = os.path.join(ROOT, rel), os.path.join(TREE, rel)
            if os.path.exists(dst):
                with open(src, "rb") as a, open(dst, "rb") as b:
                    if a.read() == b.read():
                        continue
            os.makedirs(os.path.dirname(dst), exist_ok=True)
            shutil.copy2(src, dst)
    for top, dirs, files in os.walk(TREE):
        rel_top = os.path.relpath(top, TREE)
        if rel_top == ".":
            dirs[:] = [d for d in dirs if d != "build"]
        for name in files:
            rel = os.path.normpath(os.path.join(rel_top, name))
            if rel not in wanted:
                os.remove(os.path.join(TREE, rel))


def configure():
    rc, out = run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                   "-DWOODSHED_WERROR=ON", "-DWOODSHED_BUILD_TOOLS=OFF", "-DWOODSHED_BUILD_BENCH=OFF"])
    if rc != 0:
        sys.exit("configure failed:\n" + out)


def build():
    rc, out = run(["cmake", "--build", BUILD, "-j2", "--target"] + TESTS, timeout=1800)
    return rc == 0, out


def run_tests():
    """Name of the first failing test binary, or None when all pass."""
    for t in TESTS:
        rc, _ = run([os.path.join(BUILD, "bin", t)], timeout=TEST_TIMEOUT, cwd=BUILD)
        if rc != 0:
            return t + (" (timeout)" if rc == "timeout" else "")
    return None


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--only", default="", help="comma-separated path prefixes of src files to mutate")
    ap.add_argument("--list", action="store_true", help="list the mutations and check their sites")
    ap.add_argument("--ids", default="", help="comma-separated mutation numbers (as --list shows)")
    ap.add_argument("--sample", type=int, default=0, help="run a random subset of this size")
    ap.add_argument("--seed", type=int, default=11, help="seed of --sample")
    ap.add_argument("--tests", default="", help="comma-separated test binaries to build and run (default: all)")
    ap.add_argument("--no-sync", action="store_true", help="reuse the scratch tree as it is")
    args = ap.parse_args()
    if args.tests:
        TESTS[:] = [t for t in args.tests.split(",") if t]

    chosen = list(enumerate(MUTATIONS, 1))
    if args.only:
        prefixes = tuple(p.strip() for p in args.only.split(",") if p.strip())
        chosen = [(i, m) for i, m in chosen if m[0].startswith(prefixes)]
    if args.ids:
        ids = {int(x) for x in args.ids.split(",") if x.strip()}
        chosen = [(i, m) for i, m in chosen if i in ids]
    if args.sample:
        chosen = sorted(random.Random(args.seed).sample(chosen, min(args.sample, len(chosen))))

    if args.list:
        for i, (path, pattern, nth, repl) in chosen:
            with open(os.path.join(ROOT, path)) as f:
                ok = locate(f.read(), pattern, nth) is not None
            print(f"{i:3d} {path}: {pattern!r} -> {repl!r}{'' if ok else '  [site not found]'}")
        return

    if not args.no_sync:
        sync_tree()
    configure()
    ok, out = build()
    if not ok:
        sys.exit("the unmutated tree does not build:\n" + out[-3000:])
    failing = run_tests()
    if failing:
        sys.exit(f"the unmutated tree fails {failing}: nothing to measure")

    tally = collections.OrderedDict()
    lines = []
    started = time.time()
    for i, (path, pattern, nth, repl) in chosen:
        target = os.path.join(TREE, path)
        with open(target) as f:
            original = f.read()
        span = locate(original, pattern, nth)
        if span is None:
            outcome = "site not found"
        else:
            try:
                with open(target, "w") as f:
                    f.write(original[:span[0]] + repl + original[span[1]:])
                built, _ = build()
                if not built:
                    outcome = "does not build"
                else:
                    failing = run_tests()
                    outcome = f"killed by {failing}" if failing else "SURVIVED"
            finally:
                with open(target, "w") as f:
                    f.write(original)
        t = tally.setdefault(path, collections.Counter())
        t["killed" if outcome.startswith("killed") else outcome] += 1
        line = f"{i:3d} {outcome:36s} {path}: {pattern!r} -> {repl!r}"
        lines.append(line)
        print(line, flush=True)
    build()  # leave the scratch build unmutated

    print(f"\n{'file':36s} killed survived other")
    total = collections.Counter()
    for path, t in tally.items():
        other = sum(v for k, v in t.items() if k not in ("killed", "SURVIVED"))
        print(f"{path:36s} {t['killed']:6d} {t['SURVIVED']:8d} {other:5d}")
        total.update(t)
    other = sum(v for k, v in total.items() if k not in ("killed", "SURVIVED"))
    print(f"{'total':36s} {total['killed']:6d} {total['SURVIVED']:8d} {other:5d}"
          f"   ({time.time() - started:.0f} s)")


if __name__ == "__main__":
    main()
