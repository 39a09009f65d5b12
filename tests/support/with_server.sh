#!/usr/bin/env bash
# Runs a command against a private sound server of its own whose null sink
# runs at RATE Hz, and stops the server afterwards:
#   with_server.sh DIR RATE COMMAND [ARGS...]
# The command learns the rate from WOODSHED_SINK_RATE.
set -euo pipefail
dir=$1
rate=$2
shift 2
script="$(cd "$(dirname "$0")/../.." && pwd)/scripts/pulse-server.sh"
rm -rf "$dir"
# shellcheck disable=SC1090
source <(bash "$script" start "$dir" "$rate")
trap 'bash "$script" stop "$dir"' EXIT
# At debug level the server logs the underruns the tests read (best effort).
python3 "$(dirname "$0")/server_debug_log.py" >/dev/null 2>&1 || true
export WOODSHED_SINK_RATE=$rate WOODSHED_REQUIRE_SOUND_SERVER=1
"$@"
