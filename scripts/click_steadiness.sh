#!/usr/bin/env bash
# Does the click stay steady on a real sound server? Plays the metronome at
# 120 BPM into a private PulseAudio null sink at each rate, records the sink's
# monitor and counts the clicks and the intervals that are not exactly half a
# second (the server fills a starved stream with silence, which pushes every
# later click back).
#
#   scripts/click_steadiness.sh [WOODSHED_BINARY] [SECONDS] [RATE ...]
#
# Defaults: build/release/bin/woodshed, 60 s, 48000 and 44100 Hz. Load the
# machine beforehand (e.g. stress-ng --cpu 2) to see it under pressure.
# Prints one line a rate: clicks found (a starved stream plays fewer in the
# same time), irregular intervals (off by more than one frame), and the interval range.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=${1:-build/release/bin/woodshed}
seconds=${2:-60}
shift $(( $# < 2 ? $# : 2 ))
rates=("$@")
[ ${#rates[@]} -gt 0 ] || rates=(48000 44100)

work=$(mktemp -d)
server=""
cleanup() {
  [ -n "$server" ] && bash scripts/pulse-server.sh stop "$server" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

for rate in "${rates[@]}"; do
  server="$work/pulse-$rate"
  # shellcheck disable=SC1090
  source <(bash scripts/pulse-server.sh start "$server" "$rate")
  parec --raw --format=float32le --channels=1 --rate="$rate" --latency-msec=200 \
    --device=woodshed_sink.monitor >"$work/monitor-$rate.f32" &
  rec=$!
  sleep 3  # the recorder's first audio arrives only after a block of the sink
  "$bin" click --bpm 120 --seconds "$seconds" >/dev/null 2>&1 </dev/null || true
  # The monitor hands its audio over in blocks of up to two seconds: wait for
  # the last ones before stopping the recorder.
  sleep 3
  kill "$rec"; wait "$rec" 2>/dev/null || true
  bash scripts/pulse-server.sh stop "$server"; server=""
  python3 - "$work/monitor-$rate.f32" "$rate" "$seconds" <<'PY'
import array, sys
path, rate = sys.argv[1], int(sys.argv[2])
x = array.array('f'); x.frombytes(open(path, 'rb').read())
gap = rate // 10                      # a click and its tail last well under 100 ms
onsets, quiet = [], gap
for i, v in enumerate(x):
    if abs(v) > 1e-3:
        if quiet >= gap:
            onsets.append(i)
        quiet = 0
    else:
        quiet += 1
step = rate // 2                      # 120 BPM
iv = [b - a for a, b in zip(onsets, onsets[1:])]
bad = [d for d in iv if abs(d - step) > 1]
expected = int(sys.argv[3]) * 2
print(f"{rate} Hz: {len(onsets)} clicks (about {expected} expected), "
      f"{len(bad)} irregular intervals of {len(iv)}"
      + (f", intervals {min(iv)}..{max(iv)} frames (exact: {step})" if iv else ""))
PY
done
