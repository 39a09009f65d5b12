#!/usr/bin/env bash
# End-to-end checks of the woodshed program: tones of known pitch through the
# tuner, input formats, and the command-line contract (exit codes, one-line
# errors). The expected answers come from equal temperament, not from the
# program.
#
# usage: cli_test.sh [EMULATOR...] WOODSHED
#   e.g. cli_test.sh build/release/bin/woodshed
#        cli_test.sh /usr/lib/wine/wine64 build/windows/bin/woodshed.exe
set -uo pipefail

if [ $# -lt 1 ]; then
  echo "usage: $0 [EMULATOR...] WOODSHED" >&2
  exit 2
fi
ws=("$@")
# The tests run in a scratch directory: make a relative program path absolute.
last=$(( ${#ws[@]} - 1 ))
if [[ "${ws[last]}" == */* ]]; then
  ws[last]=$(cd "$(dirname "${ws[last]}")" && pwd)/$(basename "${ws[last]}")
fi
emulated=0
[ ${#ws[@]} -gt 1 ] && emulated=1

work=$(mktemp -d "${TMPDIR:-/tmp}/woodshed-cli-test.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() { failed=$((failed + 1)); echo "FAIL: $*"; }

# Runs the program; stdout, stderr (carriage returns dropped, as a Windows
# build writes them) and the exit status land in $out, $err and $rc.
run() {
  "${ws[@]}" "$@" > stdout.txt 2> stderr.txt
  rc=$?
  out=$(tr -d '\r' < stdout.txt)
  err=$(tr -d '\r' < stderr.txt)
}

# Fields of the "final:" line: note, frequency, cents, state.
final_fields() {
  local line
  line=$(grep '^final:' <<< "$out")
  f_note=$(awk '{print $2}' <<< "$line")
  f_hz=$(awk '{print $3}' <<< "$line")
  f_cents=$(awk '{print $5}' <<< "$line")
  f_state=$(sed -E 's/.*clarity [0-9.]+  ([a-z ]+[a-z]).*/\1/' <<< "$line")
}

near() {  # near VALUE EXPECTED TOLERANCE
  awk -v v="$1" -v e="$2" -v t="$3" \
    'BEGIN { d = v - e; if (d < 0) d = -d; exit !(v != "" && d <= t) }'
}

midi_hz() {  # midi_hz MIDI CENTS A4
  awk -v n="$1" -v c="$2" -v a="$3" 'BEGIN { printf "%.4f", a * 2 ^ ((n - 69) / 12 + c / 1200) }'
}

# ---- tones of known pitch through the tuner ------------------------------
# note  midi  detune  rate    tone-a4  tune options        expect  cents    state
pitch_cases=(
  "E2   40   0     48000  440  -                    E2     0      in tune"
  "A2   45   0     44100  440  -                    A2     0      in tune"
  "G3   55   0     22050  440  -                    G3     0      in tune"
  "E4   64   0     96000  440  -                    E4     0      in tune"
  "A4   69   0     192000 440  -                    A4     0      in tune"
  "A4   69   0     8000   440  -                    A4     0      in tune"
  "C6   84   0     48000  440  -                    C6     0      in tune"
  "A2   45   20    48000  440  -                    A2     20     pitched"
  "A2   45   -30   48000  440  -                    A2     -30    pitched"
  "E2   40   45    48000  440  -                    E2     45     pitched"
  "E2   40   55    48000  440  -                    F2     -45    pitched"
  "D3   50   4     48000  440  -                    D3     4      in tune"
  "D3   50   4     48000  440  --tolerance=2        D3     4      pitched"
  "A4   69   0     48000  432  -                    A4     -31.77 pitched"
  "A4   69   0     48000  432  --a4=432             A4     0      in tune"
  "A2   45   0     48000  440  --note=A#2           A#2    -100   pitched"
  "A2   45   0     48000  440  --note=Bb2           A#2    -100   pitched"
  "A2   45   0     48000  440  --note=46            A#2    -100   pitched"
  "A2   45   0     48000  440  --slow               A2     0      in tune"
  "B3   59   -8    48000  440  --range=100..600     B3     -8     pitched"
)
for c in "${pitch_cases[@]}"; do
  read -r note midi detune rate a4 opts expect cents state <<< "$c"
  name="tone $note ${detune}c ${rate}Hz a4=$a4, tune $opts"
  run tone tone.wav --note "$note" --cents "$detune" --rate "$rate" --a4 "$a4" --seconds 2
  if [ "$rc" -ne 0 ]; then fail "$name: tone exit $rc: $err"; continue; fi
  if [ "$opts" = "-" ]; then
    run tune tone.wav --final-only
  else
    run tune tone.wav --final-only "$opts"
  fi
  if [ "$rc" -ne 0 ]; then fail "$name: tune exit $rc: $err"; continue; fi
  final_fields
  hz=$(midi_hz "$midi" "$detune" "$a4")
  if [ "$f_note" != "$expect" ]; then
    fail "$name: note $f_note, want $expect"
  elif ! near "$f_cents" "$cents" 1.5; then
    fail "$name: cents $f_cents, want $cents"
  elif ! near "$f_hz" "$hz" "$(awk -v h="$hz" 'BEGIN { print h * 0.001 }')"; then
    fail "$name: $f_hz Hz, want $hz"
  elif [ "$f_state" != "$state" ]; then
    fail "$name: state '$f_state', want '$state'"
  else
    pass
  fi
done

# ---- the time line ---------------------------------------------------------
run tone a2.wav --seconds 3
run tune a2.wav --every 0.5
times=$(grep -E '^ *[0-9]+\.[0-9]{3}s ' <<< "$out" | awk '{print $1}' | tr '\n' ' ')
if [ "$times" = "0.500s 1.000s 1.500s 2.000s 2.500s 3.000s " ]; then
  pass
else
  fail "report times: $times"
fi
notes=$(grep -E '^ *[0-9]+\.[0-9]{3}s ' <<< "$out" | awk '{print $2}' | sort -u | tr '\n' ' ')
if [ "$notes" = "A2 " ]; then pass; else fail "notes along a steady A2: $notes"; fi
if grep -q '^final: A2 .*(whole file, 3.000 s)$' <<< "$out"; then
  pass
else
  fail "final line: $out"
fi

run tune a2.wav --final-only
if [ "$(grep -cE '^ *[0-9]+\.[0-9]{3}s ' <<< "$out")" -eq 0 ] && [ "$(wc -l <<< "$out")" -eq 2 ]; then
  pass
else
  fail "--final-only printed: $out"
fi

# 0.05 s at 8000 Hz is 400 samples, less than the 1024-sample window.
run tone short.wav --seconds 0.05 --rate 8000
run tune short.wav
if [ "$rc" -eq 0 ] && grep -q '^final: no reading' <<< "$out"; then
  pass
else
  fail "short file: rc $rc, $out"
fi

# ---- the tone file itself ----------------------------------------------------
run tone one.wav --seconds 1 --rate 8000
size=$(wc -c < one.wav)
header=$(head -c 16 one.wav | od -An -c | tr -s ' ')
# 1 s at 8000 Hz, 16-bit mono: 16000 bytes after the 44-byte header.
if [ "$size" -eq 16044 ] && [[ "$header" == *"R I F F"*"W A V E f m t"* ]]; then
  pass
else
  fail "tone file: $size bytes, header '$header'"
fi
run tone again.wav --seconds 1 --rate 8000
if cmp -s one.wav again.wav; then pass; else fail "tone output differs between runs"; fi

# ---- other input formats (made with Python, when it is there) ---------------
if command -v python3 > /dev/null; then
  python3 - <<'EOF'
import math, struct, wave

def pcm16(frames):
    return b"".join(struct.pack("<" + "h" * len(f), *f) for f in frames)

def write_wav(path, rate, frames):
    with wave.open(path, "wb") as w:
        w.setnchannels(len(frames[0])); w.setsampwidth(2); w.setframerate(rate)
        w.writeframes(pcm16(frames))

def sine(f, rate, seconds, amp=12000):
    return [int(round(amp * math.sin(2 * math.pi * f * i / rate)))
            for i in range(int(seconds * rate))]

# Stereo: the same A3 on both sides, and A3 against its own inverse (silence).
a3 = sine(220.0, 48000, 1.5)
write_wav("stereo.wav", 48000, [(s, s) for s in a3])
write_wav("cancel.wav", 48000, [(s, -s) for s in a3])
# A rate the tuner does not take directly: resampled on the way in.
write_wav("low.wav", 6000, [(s,) for s in sine(220.0, 6000, 1.5)])

# The A2 tone as FLAC, verbatim subframes: must read back sample for sample.
def crc8(data):
    c = 0
    for b in data:
        c ^= b
        for _ in range(8):
            c = ((c << 1) ^ 0x07) & 0xff if c & 0x80 else (c << 1) & 0xff
    return c

def crc16(data):
    c = 0
    for b in data:
        c ^= b << 8
        for _ in range(8):
            c = ((c << 1) ^ 0x8005) & 0xffff if c & 0x8000 else (c << 1) & 0xffff
    return c

def utf8_number(n):
    if n < 0x80:
        return bytes([n])
    out, limit, lead = [], 0x3f, 0x80
    while n > limit:
        out.insert(0, 0x80 | (n & 0x3f)); n >>= 6; limit >>= 1; lead = (lead >> 1) | 0x80
    return bytes([lead | n] + out)

with wave.open("a2.wav", "rb") as w:
    rate, count = w.getframerate(), w.getnframes()
    samples = struct.unpack("<%dh" % count, w.readframes(count))
block = 4096
info = struct.pack(">HH", block, block) + b"\0" * 6
info += ((rate << 44) | (0 << 41) | (15 << 36) | count).to_bytes(8, "big") + b"\0" * 16
flac = b"fLaC" + bytes([0x80, 0, 0, len(info)]) + info
for number, start in enumerate(range(0, count, block)):
    chunk = samples[start:start + block]
    head = bytes([0xff, 0xf8, 0x70, 0x08]) + utf8_number(number) + struct.pack(">H", len(chunk) - 1)
    frame = head + bytes([crc8(head), 0x02]) + struct.pack(">%dh" % len(chunk), *chunk)
    flac += frame + struct.pack(">H", crc16(frame))
open("a2.flac", "wb").write(flac)
EOF
  run tune stereo.wav --final-only
  final_fields
  if [ "$f_note" = A3 ] && near "$f_cents" 0 1 && grep -q '2 channels' <<< "$out"; then
    pass
  else
    fail "stereo: $out"
  fi
  run tune cancel.wav --final-only
  final_fields
  if [ "$f_note" = "--" ] && [ "$f_state" = silent ]; then
    pass
  else
    fail "cancelling stereo: $out"
  fi
  run tune low.wav --final-only
  final_fields
  if [ "$f_note" = A3 ] && near "$f_cents" 0 2 && grep -q 'resampled from 6000 Hz' <<< "$out"; then
    pass
  else
    fail "6000 Hz file: $out"
  fi
  run tune a2.wav --every 0.5
  from_wav=$(sed 1d <<< "$out")
  run tune a2.flac --every 0.5
  if [ "$rc" -eq 0 ] && [ "$(sed 1d <<< "$out")" = "$from_wav" ]; then
    pass
  else
    fail "FLAC and WAV of the same samples differ: $err $out"
  fi
else
  echo "note: python3 not found, stereo, resampling and FLAC input not checked"
fi

# ---- the command-line contract ------------------------------------------------
printf 'not audio\n' > text.wav
: > empty.wav
head -c 44 a2.wav > header-only.wav
# exit  arguments
usage_cases=(
  "1 tune missing.wav"
  "1 tune text.wav"
  "1 tune empty.wav"
  "1 tune header-only.wav"
  "1 tune ."
  "1 tone no-such-dir/x.wav"
  "2 tune"
  "2 tune a2.wav a2.wav"
  "2 tune a2.wav --bogus"
  "2 tune a2.wav -x"
  "2 tune a2.wav --a4 399"
  "2 tune a2.wav --a4 abc"
  "2 tune a2.wav --a4"
  "2 tune a2.wav --note H2"
  "2 tune a2.wav --note 128"
  "2 tune a2.wav --range 100..120"
  "2 tune a2.wav --range 100"
  "2 tune a2.wav --range abc..300"
  "2 tune a2.wav --tolerance 30"
  "2 tune a2.wav --every 0"
  "2 tune a2.wav --slow=1"
  "2 tone"
  "2 tone x.wav --note C8 --rate 8000"
  "2 tone x.wav --seconds -1"
  "2 frob"
  "2 --frob"
  "2"
)
for c in "${usage_cases[@]}"; do
  read -r -a words <<< "$c"
  want=${words[0]}
  args=("${words[@]:1}")
  run "${args[@]}"
  lines=$(printf '%s' "$err" | grep -c '')
  if [ "$rc" -ne "$want" ]; then
    fail "'${args[*]}': exit $rc, want $want"
  elif [ "$want" -eq 1 ] \
       && { [ "$lines" -ne 1 ] || [[ "$err" != "woodshed: "* ]] || [ -n "$out" ]; }; then
    fail "'${args[*]}': want one 'woodshed: ' line on stderr only, got '$err' / '$out'"
  elif [ "$want" -eq 2 ] && [ ${#args[@]} -gt 0 ] \
       && { [ "$lines" -ne 1 ] || [[ "$err" != "woodshed: "* ]]; }; then
    fail "'${args[*]}': want one 'woodshed: ' line on stderr, got '$err'"
  else
    pass
  fi
done
run tune missing.wav
if [ "$err" = "woodshed: cannot decode 'missing.wav': no such file" ]; then
  pass
else
  fail "missing file message: $err"
fi

for args in "--help" "help" "help tune" "tune --help" "tone -h" "--version"; do
  read -r -a words <<< "$args"
  run "${words[@]}"
  if [ "$rc" -eq 0 ] && [ -n "$out" ] && [ -z "$err" ]; then pass; else fail "'$args': exit $rc"; fi
done

# ---- Ctrl-C -----------------------------------------------------------------
# Signals do not reach a program under an emulator the same way; native only.
if [ "$emulated" -eq 0 ]; then
  run tone long.wav --seconds 60 --rate 8000
  # Many long overlapping reports keep it busy well past the signal.
  "${ws[@]}" tune long.wav --every 0.01 --context 60 > stdout.txt 2> stderr.txt &
  pid=$!
  sleep 1
  kill -INT "$pid"
  wait "$pid"
  rc=$?
  if [ "$rc" -eq 130 ] && grep -q '^woodshed: interrupted' stderr.txt \
     && grep -q 's  A2 ' stdout.txt \
     && ! grep -q '^final:' stdout.txt; then
    pass
  else
    fail "Ctrl-C: exit $rc, $(cat stderr.txt)"
  fi
fi

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
