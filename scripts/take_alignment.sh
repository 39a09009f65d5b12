#!/usr/bin/env bash
# Does a take keep one round trip from start to end on a real sound server?
# Records consecutive takes against a music backing on a private PulseAudio
# null sink at each rate, finds the backing's delay in windows along each
# take with 'woodshed align', and counts the takes whose delay stayed within
# one frame. A sound server that falls behind moves playback against capture;
# the recorder repairs what it sees, and this shows what is left.
#
#   scripts/take_alignment.sh [WOODSHED_BINARY] [TAKES] [SECONDS] [RATE ...]
#
# Defaults: build/release/bin/woodshed, 20 takes, 30 s, 48000 and 44100 Hz;
# WINDOW=5 sets the window length in seconds, KEEP=DIR keeps the backing,
# the takes and each server's log in DIR (a backing.wav already there is
# used again). Load the machine beforehand (e.g.
# stress-ng --cpu 2) to see it under pressure. Prints a line a take: the
# recorder's repairs, the playback underruns the server logged (by stream:
# 'miniaudio' is the recorder's, 'pacat' the sink's keep-alive), the delay
# found in each window and their spread in frames ('-' for a window whose
# delay align did not trust), "ok" for a spread of at most one frame, "near"
# for two; then a summary a rate.
set -euo pipefail
cd "$(dirname "$0")/.."

bin=${1:-build/release/bin/woodshed}
takes=${2:-20}
seconds=${3:-30}
shift $(( $# < 3 ? $# : 3 ))
rates=("$@")
[ ${#rates[@]} -gt 0 ] || rates=(48000 44100)
window=${WINDOW:-5}

if [ -n "${KEEP:-}" ]; then
  mkdir -p "$KEEP"; work=$(cd "$KEEP" && pwd)
else
  work=$(mktemp -d)
fi
server=""
cleanup() {
  [ -n "$server" ] && bash scripts/pulse-server.sh stop "$server" >/dev/null 2>&1 || true
  [ -n "${KEEP:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

# Two minutes of seeded music (bass, chords, a melody, kick, snare, hats of
# random loudness), 16-bit stereo at 44100 Hz: no two windows alike, so the
# delay has one peak. Takes start at different places in it.
backing_seconds=120
[ -f "$work/backing.wav" ] || python3 - "$work/backing.wav" "$backing_seconds" <<'PY'
import array, math, random, sys, wave
path, secs, sr = sys.argv[1], int(sys.argv[2]), 44100
rng = random.Random(15)
n = secs * sr
x = array.array('f', bytes(4 * n))
def note(start, dur, freq, amp, decay, harm=(1.0,)):
    a, b = int(start * sr), min(n, int((start + dur) * sr))
    w = [2 * math.pi * freq * (k + 1) / sr for k in range(len(harm))]
    for i in range(a, b):
        t = i - a
        env = amp * math.exp(-t / (decay * sr)) * min(1.0, t / 64)
        x[i] += env * sum(h * math.sin(wk * t) for h, wk in zip(harm, w))
def noise(start, dur, amp, decay):
    a, b = int(start * sr), min(n, int((start + dur) * sr))
    for i in range(a, b):
        x[i] += amp * math.exp(-(i - a) / (decay * sr)) * rng.uniform(-1, 1)
beat = 0.5
scale = [0, 2, 3, 5, 7, 8, 10]  # A minor
for b in range(int(secs / beat)):
    t = b * beat
    if b % 4 in (0, 2) or rng.random() < 0.2:
        note(t, 0.25, 60.0, 0.5, 0.08)                        # kick
    if b % 4 in (1, 3):
        noise(t, 0.2, 0.25 * rng.uniform(0.6, 1.0), 0.05)      # snare
    for h in range(2):
        noise(t + h * beat / 2, 0.05, 0.08 * rng.uniform(0.3, 1.0), 0.01)  # hats
    if b % 2 == 0:
        deg = rng.choice(scale)
        note(t, 0.9, 55.0 * 2 ** (deg / 12), 0.25, 0.4, (1.0, 0.5, 0.25))  # bass
    if b % 8 == 0:
        root = rng.choice(scale)
        for iv in (0, 3, 7):
            note(t, 3.8, 220.0 * 2 ** ((root + iv) / 12), 0.05, 1.5, (1.0, 0.3))  # chord
    if rng.random() < 0.7:
        deg = rng.choice(scale) + 12 * rng.randint(0, 1)
        note(t + rng.choice((0, 0.25)), 0.3, 440.0 * 2 ** (deg / 12), 0.12, 0.12, (1.0, 0.4, 0.2))
peak = max(abs(v) for v in x)
pcm = array.array('h')
for v in x:
    s = int(v / peak * 0.7 * 32767)
    pcm.extend((s, s))
with wave.open(path, 'wb') as w:
    w.setnchannels(2); w.setsampwidth(2); w.setframerate(sr); w.writeframes(pcm.tobytes())
PY

# Reads a take, aligns each window and prints the take's line; the last
# field of its output is "ok" or "moved" for the summary.
analyse() {  # analyse TAKE FROM RECORD_JSON LOG_BEFORE LOG
  python3 - "$bin" "$work/backing.wav" "$@" "$window" <<'PY'
import json, os, re, subprocess, sys, tempfile, wave
binary, backing, take, start, rec_json, log_from, log, window = sys.argv[1:]
start, window = float(start), float(window)
rec = json.loads(rec_json) if rec_json.strip() else {}
with open(log, 'rb') as f:
    f.seek(int(log_from))
    text = f.read().decode('utf-8', 'replace')
under = {}
for name in re.findall(r"underrun of '([^']*)'", text, re.I):
    under[name] = under.get(name, 0) + 1
with wave.open(take) as w:
    sr, ch, width = w.getframerate(), w.getnchannels(), w.getsampwidth()
    frames = w.readframes(w.getnframes())
step = int(window * sr)
total = len(frames) // (ch * width)
delays = []
with tempfile.TemporaryDirectory() as tmp:
    # A repair that drops frames shortens the take: the last window counts
    # from half its length on.
    for k in range((total + step // 2) // step):
        piece = os.path.join(tmp, f"w{k}.wav")
        with wave.open(piece, 'wb') as w:
            w.setnchannels(ch); w.setsampwidth(width); w.setframerate(sr)
            w.writeframes(frames[k * step * ch * width:(k + 1) * step * ch * width])
        r = subprocess.run([binary, 'align', backing, piece, '--from', f"{start + k * window:.6f}", '--json'],
                           capture_output=True, text=True)
        try:
            a = json.loads(r.stdout)
            delays.append(a['delay_frames'] if a.get('valid') else None)
        except (ValueError, KeyError):
            delays.append(None)
found = [d for d in delays if d is not None]
spread = max(found) - min(found) if found else None
whole = len(found) == len(delays) and len(found) > 0
verdict = 'ok' if whole and spread <= 1 else 'near' if whole and spread <= 2 else 'moved'
shown = ' '.join('-' if d is None else str(d) for d in delays)
runs = ', '.join(f"{k} {v}" for k, v in sorted(under.items())) or 'none'
print(f"repairs {rec.get('alignment_repairs', '?')}, device {rec.get('device_rate', '?')} Hz, "
      f"captured {rec.get('captured_seconds', 0):.1f} s, underruns: {runs}; "
      f"delays {shown}; spread {'-' if spread is None else spread} frames; {verdict}")
PY
}

for rate in "${rates[@]}"; do
  server="$work/pulse-$rate"
  # shellcheck disable=SC1090
  source <(bash scripts/pulse-server.sh start "$server" "$rate")
  python3 tests/support/server_debug_log.py >/dev/null
  good=0 near=0 repairs=0
  for i in $(seq "$takes"); do
    from=$(( (i - 1) * 17 % (backing_seconds - seconds - 2) ))
    take="$work/take-$rate-$i.wav"
    before=$(stat -c %s "$server/pulse.log")
    status=0
    summary=$("$bin" record --backing "$work/backing.wav" --take "$take" --from "$from" \
      --seconds "$seconds" --json 2>"$work/record-$rate-$i.err" </dev/null) || status=$?
    line=$(analyse "$take" "$from" "$summary" "$before" "$server/pulse.log")
    [ "$status" -eq 0 ] || line="record exit $status: $line"
    echo "$rate Hz take $i (from $from s): $line"
    case ${line##*; } in ok) good=$((good + 1)) ;; near) near=$((near + 1)) ;; esac
    r=$(sed -n 's/.*"alignment_repairs": *\([0-9]*\).*/\1/p' <<<"$summary")
    repairs=$((repairs + ${r:-0}))
  done
  bash scripts/pulse-server.sh stop "$server"; server=""
  echo "$rate Hz: $good of $takes takes kept one delay (spread <= 1 frame), $near more within 2 frames; $repairs repairs in all"
done
