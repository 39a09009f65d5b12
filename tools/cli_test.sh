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

source "$(dirname "${BASH_SOURCE[0]}")/cli_harness.sh" cli-test "$@"

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

# ---- click tracks -------------------------------------------------------------
# Expected positions come from the tempo: a beat is rate x 60 / BPM frames,
# and pulse k sits on that exact multiple rounded down.
if command -v python3 > /dev/null; then
  cat > wavcheck.py <<'EOF'
import array, sys, wave

def load(path):
    with wave.open(path, "rb") as w:
        ch, width, rate, n = w.getnchannels(), w.getsampwidth(), w.getframerate(), w.getnframes()
        data = array.array("h", w.readframes(n))
    if sys.byteorder == "big":
        data.byteswap()
    return ch, width, rate, n, data

cmd, path = sys.argv[1], sys.argv[2]
args = [int(a) for a in sys.argv[3:]] if cmd != "prefix" else []
ch, width, rate, n, data = load(path)
left = data[0::ch]
if cmd == "info":  # channels, bytes a sample, rate, frames, channels identical
    print(ch, width, rate, n, int(all(data[k::ch] == left for k in range(1, ch))))
elif cmd == "onsets":  # a click starts at each frame: silence before, sound from it
    bad = []
    for p in args:
        before = left[max(0, p - 64):p]
        first = next((i for i in range(p, min(n, p + 64)) if left[i] != 0), None)
        # A click's table may start on a zero crossing: its first sound is
        # then the frame after.
        if any(before) or first not in (p, p + 1):
            bad.append("%d (first sound at %s)" % (p, first))
    print("ok" if not bad else "no click at " + ", ".join(bad))
elif cmd == "peaks":  # loudest sample of each window of LEN frames
    size = args[0]
    print(" ".join(str(max(abs(v) for v in left[i:i + size])) for i in range(0, n, size)))
elif cmd == "prefix":  # this file's samples begin the other file's
    other = load(sys.argv[3])[4]
    print("ok" if other[:len(data)] == data else "differs")
EOF
  wavcheck() { python3 wavcheck.py "$@"; }
  onsets_at() {  # onsets_at NAME FILE POSITIONS...
    local name=$1 file=$2
    shift 2
    local got
    got=$(wavcheck onsets "$file" "$@")
    if [ "$got" = ok ]; then pass; else fail "$name: $got"; fi
  }

  # 120 BPM at 48000 Hz: 24000 frames a beat; one count-in bar and two bars.
  run click --render c120.wav --bars 2 --count-in 1
  if [ "$rc" -eq 0 ] && [ "$(wc -c < c120.wav)" -eq $((44 + 3 * 4 * 24000 * 2)) ] \
     && [ "$(wavcheck info c120.wav)" = "1 2 48000 288000 1" ]; then
    pass
  else
    fail "120 BPM, 2 bars + count-in: rc $rc, $(wc -c < c120.wav) bytes, $(wavcheck info c120.wav) $err"
  fi
  onsets_at "120 BPM beats" c120.wav $(seq 0 24000 264000)

  # 100 BPM at 44100 Hz in 3: 26460 frames a beat, stereo.
  run click --render c100.wav --bars 3 --beats 3 --bpm 100 --rate 44100 --channels 2
  if [ "$rc" -eq 0 ] && [ "$(wc -c < c100.wav)" -eq $((44 + 9 * 26460 * 4)) ] \
     && [ "$(wavcheck info c100.wav)" = "2 2 44100 238140 1" ]; then
    pass
  else
    fail "100 BPM stereo: rc $rc, $(wc -c < c100.wav) bytes, $(wavcheck info c100.wav)"
  fi
  onsets_at "100 BPM beats" c100.wav $(seq 0 26460 211680)

  # 110 BPM at 44100 Hz: 24054.54... frames a beat; pulses must not drift.
  run click --render c110.wav --bars 2 --bpm 110 --rate 44100
  want=$(awk 'BEGIN { printf "%d", 8 * 44100 * 60 / 110 }')
  if [ "$(wavcheck info c110.wav)" = "1 2 44100 $want 1" ]; then
    pass
  else
    fail "110 BPM length: $(wavcheck info c110.wav), want $want frames"
  fi
  onsets_at "110 BPM beats" c110.wav $(awk 'BEGIN { for (k = 0; k < 8; k++) print int(k * 2646000 / 110) }')

  # Fractional tempo: 90.5 BPM at 8000 Hz in 2 is 10607.73... frames a bar.
  run click --render c905.wav --bars 5 --bpm 90.5 --beats 2 --rate 8000
  want=$(awk 'BEGIN { printf "%d", 10 * 8000 * 60000 / 90500 }')
  if [ "$(wavcheck info c905.wav)" = "1 2 8000 $want 1" ]; then
    pass
  else
    fail "90.5 BPM length: $(wavcheck info c905.wav), want $want frames"
  fi

  # Accents 2,4,1,0: normal (beat gain 0.75), accent (1.0), soft (sub gain
  # 0.5, same sound as normal), silent.
  run click --render acc.wav --bars 1 --accents 2,4,1,0
  read -r p0 p1 p2 p3 rest <<< "$(wavcheck peaks acc.wav 24000)"
  if [ "$p1" -gt "$p0" ] && [ "$p0" -gt "$p2" ] && [ "$p2" -gt 0 ] && [ "$p3" -eq 0 ] \
     && near "$(awk -v a="$p2" -v b="$p0" 'BEGIN { print a / b }')" 0.6667 0.01; then
    pass
  else
    fail "accents 2,4,1,0: beat peaks $p0 $p1 $p2 $p3"
  fi

  # Swing 0.6 on 2 pulses a beat: pairs of 14400 + 9600 frames.
  run click --render swing.wav --bars 1 --sub 2 --swing 0.6
  onsets_at "swing 0.6" swing.wav 0 14400 24000 38400 48000 62400 72000 86400

  # Three against four: second-rhythm clicks at a third and two thirds of the bar.
  run click --render poly.wav --bars 1 --sound 2 --poly 3
  onsets_at "second rhythm" poly.wav 0 24000 32000 48000 64000 72000

  # Gap trainer 1,1: every second bar silent. Drop 1: every beat left out,
  # but never the count-in.
  run click --render gap.wav --bars 4 --gap 1,1
  read -r g0 g1 g2 g3 rest <<< "$(wavcheck peaks gap.wav 96000)"
  if [ "$g0" -gt 0 ] && [ "$g1" -eq 0 ] && [ "$g2" -gt 0 ] && [ "$g3" -eq 0 ]; then
    pass
  else
    fail "gap 1,1: bar peaks $g0 $g1 $g2 $g3"
  fi
  run click --render drop.wav --bars 1 --count-in 1 --drop 1
  read -r d0 d1 rest <<< "$(wavcheck peaks drop.wav 96000)"
  if [ "$d0" -gt 0 ] && [ "$d1" -eq 0 ]; then pass; else fail "drop 1: bar peaks $d0 $d1"; fi

  # A stepwise ramp 120 -> 180 by 20 every bar: bars of 96000, 82285.71,
  # 72000 and 64000 frames, bar lines at the running sums rounded down.
  ramp=(--bpm 120 --ramp-to 180 --ramp-every 1 --ramp-step 20)
  run click --render ramp4.wav --bars 4 "${ramp[@]}"
  run click --render ramp5.wav --bars 5 "${ramp[@]}"
  if [ "$(wavcheck info ramp4.wav)" = "1 2 48000 314285 1" ] \
     && [ "$(wavcheck info ramp5.wav)" = "1 2 48000 378285 1" ] \
     && [ "$(wavcheck prefix ramp4.wav ramp5.wav)" = ok ]; then
    pass
  else
    fail "stepwise ramp: $(wavcheck info ramp4.wav) / $(wavcheck info ramp5.wav)"
  fi
  # The file ends exactly where the next bar begins.
  onsets_at "stepwise ramp bar lines" ramp5.wav 0 96000 178285 250285 314285
  # Linear 100 -> 200 over 4 bars: 100, 125, 150, 175, then 200 BPM.
  run click --render linear.wav --bars 6 --bpm 100 --ramp-to 200 --ramp-every 4 --linear
  if [ "$(wavcheck info linear.wav)" = "1 2 48000 465188 1" ]; then
    pass
  else
    fail "linear ramp: $(wavcheck info linear.wav), want 465188 frames"
  fi
  onsets_at "linear ramp bar lines" linear.wav 0 115200 207360 284160 349988 407588

  # Rendering again replaces the file whole and leaves nothing beside it.
  run click --render c120.wav --bars 1
  if [ "$rc" -eq 0 ] && [ "$(wavcheck info c120.wav)" = "1 2 48000 96000 1" ] \
     && [ -z "$(ls ./*.tmp* 2> /dev/null)" ] && [[ "$out" == "wrote c120.wav: 1 bar at 120 BPM"* ]]; then
    pass
  else
    fail "replacing a click track: rc $rc, $(wavcheck info c120.wav), $out $err"
  fi
else
  echo "note: python3 not found, click tracks not checked"
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
  "2 tune --final-only"
  "2 tune --every 1"
  "2 tune a2.wav --seconds 1"
  "2 tune a2.wav --device 00"
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
  "1 click --render no-such-dir/x.wav --bars 1"
  "2 click --bpm 5"
  "2 click --bpm abc"
  "2 click --beats 0"
  "2 click --beats 2.5"
  "2 click --sub 13"
  "2 click --swing 0.6"
  "2 click --sub 2 --swing 0.8"
  "2 click --accents 4,2,2,2,2"
  "2 click --accents 4,5"
  "2 click --accents 4,,2"
  "2 click --gap 3"
  "2 click --gap 0,2"
  "2 click --drop 1.5"
  "2 click --poly-sound 3"
  "2 click --ramp-every 2"
  "2 click --ramp-to 140 --linear --ramp-step 2"
  "2 click --render x.wav"
  "2 click --bars 4"
  "2 click --render x.wav --bars 4 --seconds 2"
  "2 click --render x.wav --bars 4 --channels 9"
  "2 click --render x.wav --bars 100000 --bpm 10 --beats 32"
  "2 click extra"
  "2 devices extra"
  "2 frob"
  "2 --frob"
  "2"
)
for c in "${usage_cases[@]}"; do
  read -r -a words <<< "$c"
  want=${words[0]}
  args=("${words[@]:1}")
  run "${args[@]}"
  if [ "$rc" -ne "$want" ] && [ "$emulated" -eq 1 ]; then
    # Wine itself now and then fails a program it runs: one more try.
    echo "note: '${args[*]}' exited $rc under the emulator ('$err'); trying again"
    run "${args[@]}"
  fi
  lines=$(printf '%s' "$err" | grep -c '')
  if [ "$rc" -ne "$want" ]; then
    fail "'${args[*]}': exit $rc, want $want; stderr '$err'"
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

for args in "--help" "help" "help tune" "tune --help" "tone -h" "--version" \
            "click --help" "help devices"; do
  read -r -a words <<< "$args"
  run "${words[@]}"
  if [ "$rc" -eq 0 ] && [ -n "$out" ] && [ -z "$err" ]; then pass; else fail "'$args': exit $rc"; fi
done
run --help
if grep -q '^  click ' <<< "$out" && grep -q '^  devices ' <<< "$out"; then
  pass
else
  fail "overview lacks click or devices: $out"
fi
if [ ! -e x.wav ] && [ -z "$(ls ./*.tmp* 2> /dev/null)" ]; then
  pass
else
  fail "a refused render left a file behind: $(ls)"
fi

# ---- devices, live tuner and click (on a sound server only) -------------------
# The test command runs a private server whose null sink is the default
# output and whose monitor, the default input, hears what is played into it.
if [ -n "${PULSE_SERVER:-}" ]; then
  run devices
  capture=$(sed -n '/^capture/,/^playback/p' <<< "$out")
  playback=$(sed -n '/^playback/,$p' <<< "$out")
  # Wine lists the system default as a device of its own, so the default
  # mark and the sink may be on different lines. The column after the
  # default mark carries the recorder's mark on inputs.
  if [ "$rc" -eq 0 ] && grep -qE '^ +[0-9]+ \*[ r] ' <<< "$capture" && grep -qE '^ +[0-9]+ \* ' <<< "$playback" \
     && grep -q 'Woodshed_null_sink' <<< "$capture" && grep -q 'Woodshed_null_sink' <<< "$playback"; then
    pass
  else
    fail "devices: rc $rc, $out $err"
  fi
  sink_id=$(grep -E '^ +[0-9]+ .*Woodshed_null_sink +[0-9a-f]+$' <<< "$playback" | head -1 | awk '{print $NF}')

  # 400 BPM: the count-in bar lasts 0.6 s, then bar 1 begins.
  run click --seconds 1 --bpm 400 --count-in 1 --device "$sink_id"
  if [ "$rc" -eq 0 ] && grep -q 'count-in 1/1  beat 1/4  400 BPM' <<< "$out" \
     && grep -qE 'bar 1 +beat [1-4]/4  400 BPM' <<< "$out" && grep -q 'Woodshed_null_sink' <<< "$out"; then
    pass
  else
    fail "live click: rc $rc, $out $err"
  fi
  run click --seconds 1 --device 00ff
  if [ "$rc" -eq 1 ] && [[ "$err" == "woodshed: no playback device has the ID '00ff'"* ]]; then
    pass
  else
    fail "click on an unknown device: rc $rc, $err"
  fi

  # The tuner hears an A3 played into the sink.
  if command -v pacat > /dev/null && command -v python3 > /dev/null; then
    python3 -c '
import math, struct, sys
wave = [0.5 * math.sin(2 * math.pi * 220 * i / 48000) for i in range(48000 * 4)]
sys.stdout.buffer.write(struct.pack("<%df" % len(wave), *wave))' > a3.raw
    pacat --playback --raw --format=float32le --rate=48000 --channels=1 a3.raw &
    player=$!
    run tune --seconds 2
    kill "$player" 2> /dev/null
    wait "$player" 2> /dev/null
    # A 0.5 sine is 9.03 dB below full scale.
    if [ "$rc" -eq 0 ] && grep -qE '^ +[0-9.]+s  A3 +220\.[0-9]+ Hz +[-+][0-9.]+ cents  in tune +-9\.[0-9] dBFS' <<< "$out"; then
      pass
    else
      fail "live tuner on A3: rc $rc, $out $err"
    fi
  else
    run tune --seconds 1
    if [ "$rc" -eq 0 ] && grep -q 'listening to' <<< "$out"; then pass; else fail "live tuner: rc $rc, $err"; fi
  fi
elif [ -n "${WOODSHED_REQUIRE_SOUND_SERVER:-}" ]; then
  fail "no sound server (PULSE_SERVER unset) although one is required"
else
  echo "note: no sound server (PULSE_SERVER unset), devices and live checks skipped"
fi

# ---- the demo on a machine without sound hardware ------------------------------
# No server the program could find and no sound card here: the demo runs its
# own private server, and must leave neither the server nor its files behind,
# also when Ctrl-C ends it in mid-take. Linux only (the private server is).
if [ "$emulated" -eq 0 ] && [ "$(uname -s)" = Linux ] && [ ! -d /dev/snd ] && command -v pulseaudio > /dev/null; then
  mkdir -p bare/tmp bare/home bare/runtime
  chmod 700 bare/runtime
  bare=(env -u PULSE_SERVER -u PULSE_CLIENTCONFIG -u PULSE_COOKIE HOME="$PWD/bare/home"
        XDG_RUNTIME_DIR="$PWD/bare/runtime" TMPDIR="$PWD/bare/tmp")
  "${bare[@]}" "${ws[@]}" demo --dir demo1 > stdout.txt 2> stderr.txt
  rc=$?
  out=$(cat stdout.txt)
  if [ "$rc" -eq 0 ] && grep -q '^no sound hardware: running a private sound server' <<< "$out" \
     && grep -q "notes are named as played" <<< "$out" && grep -q '^   12 beats shown' <<< "$out" \
     && grep -qE 'bar 2     beat 4/4' <<< "$out" && [ -s demo1/take.wav ] && [ -s demo1/take-cleaned.wav ]; then
    pass
  else
    fail "demo on a private server: rc $rc, $out $(cat stderr.txt)"
  fi
  # The first bar holds the backing alone: cleaning must take most of it away.
  quieter=$(sed -nE 's/.*the leak is (-?[0-9.]+) dB quieter/\1/p' <<< "$out")
  if near "${quieter:-0}" 60 40; then pass; else fail "demo: leak only ${quieter:-?} dB quieter"; fi

  "${bare[@]}" "${ws[@]}" demo --dir demo2 > stdout.txt 2> stderr.txt &
  pid=$!
  for _ in $(seq 100); do grep -q '^   recording' stdout.txt 2> /dev/null && break; sleep 0.1; done
  sleep 0.5
  kill -INT "$pid"
  wait "$pid"
  rc=$?
  take_ok=$(python3 -c 'import wave, sys; w = wave.open(sys.argv[1]); print(w.getnframes() > 0)' demo2/take.wav 2>&1)
  if [ "$rc" -eq 130 ] && grep -q '^woodshed: interrupted' stderr.txt && [ "$take_ok" = True ]; then
    pass
  else
    fail "demo, Ctrl-C in mid-take: rc $rc, take: $take_ok, $(cat stderr.txt)"
  fi
  sleep 0.5
  # The server's files live under the demo's TMPDIR, and so does its command line.
  if [ -z "$(ls bare/tmp)" ] && ! pgrep -f "$PWD/bare/tmp" > /dev/null; then
    pass
  else
    fail "demo left its sound server behind: $(ls bare/tmp), $(pgrep -af "$PWD/bare/tmp")"
  fi
fi

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

finish
