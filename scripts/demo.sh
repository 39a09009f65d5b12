#!/usr/bin/env bash
# The library at work, from a fresh machine: installs what the build needs,
# builds the woodshed program and runs its demo, a practice session end to
# end (record a take against a backing, find the delay, clean the leak, name
# the notes, two bars of click). Without sound hardware the demo runs on a
# private sound server of its own. Fails when any step of the demo does.
#
# Environment:
#   WOODSHED_BUILD_DIR   build directory (default build/release, the preset's)
#   WOODSHED_CMAKE_ARGS  extra configure arguments, e.g. -DWOODSHED_BUILD_TESTS=OFF
#   WOODSHED_JOBS        parallel build jobs (default: the build tool's choice)
#   WOODSHED_DEMO_DIR    where the demo writes its files (default BUILD_DIR/demo)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
build=${WOODSHED_BUILD_DIR:-build/release}
read -r -a extra <<< "${WOODSHED_CMAKE_ARGS:-}"
jobs=()
[ -n "${WOODSHED_JOBS:-}" ] && jobs=(-j "$WOODSHED_JOBS")

bash scripts/setup.sh
cmake --preset release -B "$build" "${extra[@]}"
cmake --build "$build" --target woodshed_cli "${jobs[@]}"

echo
exec "$build/bin/woodshed" demo --dir "${WOODSHED_DEMO_DIR:-$build/demo}"
