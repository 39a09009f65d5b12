#!/usr/bin/env bash
# End-to-end checks of 'woodshed record' and of the recorder's mark in
# 'woodshed devices': the command-line contract, then on a sound server a
# short take, a take from an input chosen by name and a take ended by Ctrl-C.
# Every take must be a complete WAV file whose header agrees with its size.
#
# usage: record_cli_test.sh [EMULATOR...] WOODSHED
set -uo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/cli_harness.sh" record-test "$@"

if ! command -v python3 > /dev/null; then
  echo "note: python3 not found, record checks skipped"
  exit 0
fi

# A mono 16-bit backing of 2 s at 22050 Hz, and a 24-bit file the recorder refuses.
python3 - <<'PY'
import math, struct
def wav(name, rate, bits, frames):
    width = bits // 8
    data = b"".join(int(8000 * math.sin(2 * math.pi * 330 * i / rate)).to_bytes(width, "little", signed=True)
                    for i in range(frames))
    fmt = struct.pack("<HHIIHH", 1, 1, rate, rate * width, width, bits)
    body = b"WAVE" + b"fmt " + struct.pack("<I", 16) + fmt + b"data" + struct.pack("<I", len(data)) + data
    open(name, "wb").write(b"RIFF" + struct.pack("<I", len(body)) + body)
wav("backing.wav", 22050, 16, 44100)
wav("b24.wav", 44100, 24, 1000)
PY

# "ok SECONDS" for a complete mono 16-bit 44100 Hz take whose header states
# its own size; otherwise what is wrong.
take_info() {
  python3 - "$1" <<'PY'
import struct, sys
try:
    b = open(sys.argv[1], "rb").read()
except OSError as e:
    print("unreadable:", e); sys.exit()
if len(b) < 44 or b[:4] != b"RIFF" or b[8:16] != b"WAVEfmt " or b[36:40] != b"data":
    print("not a canonical WAV:", len(b), "bytes"); sys.exit()
riff, = struct.unpack_from("<I", b, 4)
tag, ch, rate, bps, align, bits = struct.unpack_from("<HHIIHH", b, 20)
data, = struct.unpack_from("<I", b, 40)
if (tag, ch, rate, bps, align, bits) != (1, 1, 44100, 88200, 2, 16):
    print("format", tag, ch, rate, bits); sys.exit()
if data != len(b) - 44 or riff != data + 36:
    print("header states", data, "data bytes, file holds", len(b) - 44); sys.exit()
print("ok %.3f" % ((data // 2 * 1000 // 44100) / 1000))  # as the program prints it: whole ms
PY
}

# ---- the command-line contract -------------------------------------------------
usage_cases=(
  "2 record"
  "2 record --backing backing.wav"
  "2 record --take t.wav"
  "2 record --backing backing.wav --take backing.wav"
  "2 record --backing backing.wav --take t.wav --from -1"
  "2 record --backing backing.wav --take t.wav --from abc"
  "2 record --backing backing.wav --take t.wav --seconds 0"
  "2 record --backing backing.wav --take t.wav extra"
  "2 record --backing backing.wav --take t.wav --bogus"
  "3 record --backing missing.wav --take t.wav"
  "3 record --backing b24.wav --take t.wav"
  "5 record --backing backing.wav --take no-such-dir/t.wav"
  "4 record --backing backing.wav --take t.wav --input no-such-input"
)
for c in "${usage_cases[@]}"; do
  read -r -a words <<< "$c"
  want=${words[0]}
  args=("${words[@]:1}")
  run "${args[@]}"
  lines=$(printf '%s' "$err" | grep -c '')
  if [ "$rc" -ne "$want" ]; then
    fail "'${args[*]}': exit $rc, want $want ($err)"
  elif [ "$lines" -ne 1 ] || [[ "$err" != "woodshed: "* ]] || [ -n "$out" ]; then
    fail "'${args[*]}': want one 'woodshed: ' line on stderr only, got '$err' / '$out'"
  else
    pass
  fi
done
if [ ! -e t.wav ]; then pass; else fail "a refused take left a file behind"; fi
run record --backing missing.wav --take t.wav
if [ "$err" = "woodshed: missing.wav: no such file" ]; then pass; else fail "missing backing: $err"; fi
for args in "record --help" "help record"; do
  read -r -a words <<< "$args"
  run "${words[@]}"
  if [ "$rc" -eq 0 ] && grep -q 'usage: woodshed record --backing FILE --take FILE' <<< "$out"; then
    pass
  else
    fail "'$args': exit $rc"
  fi
done

# ---- takes (on a sound server only) ------------------------------------------
# The test command's server has a null sink as default output and its
# monitor as default input.
if [ -n "${PULSE_SERVER:-}" ]; then
  run devices
  monitor=$(grep -E '^ +[0-9]+ [* ]r .*Woodshed_null_sink' <<< "$out" | head -1 \
            | sed -E 's/^ +[0-9]+ [* ]r (.*[^ ]) +[0-9a-f]+$/\1/')
  if [ "$rc" -eq 0 ] && [ -n "$monitor" ]; then pass; else fail "devices marks no input for record: $out"; fi

  run record --backing backing.wav --take "t ä.wav" --seconds 1
  info=$(take_info "t ä.wav")
  if [ "$rc" -eq 0 ] && grep -qE "^take: 't ä\.wav', 1\.[0-9]{3} s$" <<< "$out" && [[ "$info" == "ok 1."* ]]; then
    pass
  else
    fail "a one-second take: rc $rc, $info, $out $err"
  fi
  # The length printed is the file's.
  if grep -q "$(sed -E 's/ok ([0-9.]+)/\1 s/' <<< "$info")" <<< "$out"; then pass; else fail "printed length: $out vs $info"; fi

  # Without --seconds: the backing from 1.5 s lasts 0.5 s, then 1 s more.
  run record --backing backing.wav --take t2.wav --from 1.5 ${monitor:+--input "$monitor"}
  info=$(take_info t2.wav)
  if [ "$rc" -eq 0 ] && [[ "$info" == "ok 1."* ]] && grep -q "input \"$monitor\"" <<< "$out"; then
    pass
  else
    fail "a take to the backing's end from an input by name: rc $rc, $info, $out $err"
  fi
  if [ "$emulated" -eq 0 ]; then
    "${ws[@]}" record --backing backing.wav --take t3.wav > stdout.txt 2> stderr.txt &
    pid=$!
    sleep 1
    kill -INT "$pid"
    wait "$pid"
    rc=$?
    info=$(take_info t3.wav)
    if [ "$rc" -eq 130 ] && [[ "$info" == "ok "* ]] && grep -q '^take: ' stdout.txt \
       && grep -q '^woodshed: interrupted; the take is complete' stderr.txt; then
      pass
    else
      fail "Ctrl-C: exit $rc, $info, $(cat stderr.txt)"
    fi
  fi
elif [ -n "${WOODSHED_REQUIRE_SOUND_SERVER:-}" ]; then
  fail "no sound server (PULSE_SERVER unset) although one is required"
else
  echo "note: no sound server (PULSE_SERVER unset), takes not recorded"
fi

finish
