#!/usr/bin/env bash
# Runs every test: installs what is missing (scripts/setup.sh), then builds
# and tests the optimised Linux build, the ASan+UBSan and TSan builds, the
# 64-bit Windows cross build under Wine, and a short fuzzing run.
# Usage: scripts/test.sh [release|asan|tsan|windows|fuzz ...]  (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" -ne 0 ]; then
  exec sudo -E bash "$0" "$@"
fi
bash scripts/setup.sh

jobs=${WOODSHED_JOBS:-$(nproc)}
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(release asan tsan windows fuzz)

summary=()
pulse_dir=""
stop_pulse() {
  if [ -n "$pulse_dir" ]; then
    bash scripts/pulse-server.sh stop "$pulse_dir" || true
    pulse_dir=""
  fi
}
trap stop_pulse EXIT

run_preset() {  # configure, build and ctest one preset against a private sound server
  local preset=$1
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: test (private sound server with a null sink)"
  pulse_dir="$PWD/build/$preset/pulse"
  rm -rf "$pulse_dir"
  # shellcheck disable=SC1091
  source <(bash scripts/pulse-server.sh start "$pulse_dir")
  export WOODSHED_REQUIRE_SOUND_SERVER=1
  local status=0
  ctest --preset "$preset" -j "$jobs" || status=$?
  stop_pulse
  [ $status -eq 0 ] || { echo "== $preset: FAILED (server log: $PWD/build/$preset/pulse/pulse.log)"; exit $status; }
  summary+=("$preset: passed")
}

for stage in "${stages[@]}"; do
  case $stage in
    release|asan|tsan)
      export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
      export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp:print_suppressions=0"
      export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
      export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"
      run_preset "$stage"
      ;;
    windows)
      # Wine keeps its prefix inside the build tree; its first start takes a while.
      export WINEPREFIX="$PWD/build/windows/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
      mkdir -p "$WINEPREFIX"
      run_preset windows
      ;;
    fuzz)
      echo "== fuzz: build"
      cmake --preset fuzz >/dev/null
      cmake --build --preset fuzz -j "$jobs"
      for target in build/fuzz/bin/fuzz_*; do
        name=$(basename "$target")
        corpus="build/fuzz/corpus/$name"
        mkdir -p "$corpus"
        [ -d "fuzz/corpus/$name" ] && cp -n fuzz/corpus/"$name"/* "$corpus"/ 2>/dev/null || true
        echo "== fuzz: $name for ${WOODSHED_FUZZ_SECONDS:-30} s"
        "$target" -max_total_time="${WOODSHED_FUZZ_SECONDS:-30}" -rss_limit_mb=2048 -print_final_stats=1 \
          "$corpus" 2>&1 | tail -n 4
      done
      summary+=("fuzz: passed")
      ;;
    *) echo "unknown stage: $stage" >&2; exit 2 ;;
  esac
done

echo "== summary"
printf '%s\n' "${summary[@]}"
