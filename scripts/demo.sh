#!/usr/bin/env bash
# The tuner at work, from a fresh machine: installs what the build needs,
# builds the woodshed program, writes a plucked tone of known pitch and runs
# the tuner over it. Ends with a one-line verdict and fails when the tuner
# names a different note than the one played.
#
# Environment:
#   WOODSHED_BUILD_DIR   build directory (default build/release, the preset's)
#   WOODSHED_CMAKE_ARGS  extra configure arguments, e.g. -DWOODSHED_BUILD_TESTS=OFF
#   WOODSHED_JOBS        parallel build jobs (default: the build tool's choice)
#   WOODSHED_DEMO_NOTE   note to play (default A2)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build=${WOODSHED_BUILD_DIR:-build/release}
note=${WOODSHED_DEMO_NOTE:-A2}
read -r -a extra <<< "${WOODSHED_CMAKE_ARGS:-}"
jobs=()
[ -n "${WOODSHED_JOBS:-}" ] && jobs=(-j "$WOODSHED_JOBS")

bash scripts/setup.sh
cmake --preset release -B "$build" "${extra[@]}"
cmake --build "$build" --target woodshed_cli "${jobs[@]}"

woodshed=$build/bin/woodshed
demo=$build/demo
mkdir -p "$demo"
tone=$demo/$note.wav

echo
made=$("$woodshed" tone "$tone" --note "$note")
echo "$made"
"$woodshed" tune "$tone" | tee "$demo/$note.txt"

# The tone's line reads "wrote FILE: A2 (110.00 Hz), ...", the tuner's last
# one "final: A2  110.00 Hz  +0.0 cents  clarity 1.00  in tune  (...)".
expected_note=$(sed -E 's/^wrote .*: ([A-G]#?-?[0-9]+) \(([0-9.]+) Hz\).*/\1/' <<< "$made")
expected_hz=$(sed -E 's/^wrote .*: ([A-G]#?-?[0-9]+) \(([0-9.]+) Hz\).*/\2/' <<< "$made")
final=$(grep '^final:' "$demo/$note.txt" || true)
got_note=$(awk '{print $2}' <<< "$final")
got_hz=$(awk '{print $3}' <<< "$final")
got_cents=$(awk '{print $5}' <<< "$final")
got_state=$(sed -E 's/.*clarity [0-9.]+  ([a-z ]+[a-z]).*/\1/' <<< "$final")

echo
if [ -z "$final" ] || [[ "$final" == "final: no reading"* ]]; then
  echo "expected $expected_note ($expected_hz Hz), the tuner gave no reading"
  exit 1
fi
echo "expected $expected_note ($expected_hz Hz)," \
     "tuner says $got_note $got_hz Hz $got_cents cents, $got_state"
if [ "$got_note" != "$expected_note" ]; then
  echo "demo: the tuner named the wrong note" >&2
  exit 1
fi
