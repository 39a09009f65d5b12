#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# End-to-end checks of the woodshed program as a user meets it: tones of
# known pitch through the tuner, every input format through the take tools,
# pipes, click tracks, takes recorded and ended by signals, the JSON output,
# each failure class with its line and exit status. Expected answers come
# from equal temperament, the tempo and delays put in by hand, not from the
# program.
#
# usage: cli_test.sh [EMULATOR...] WOODSHED
#   e.g. cli_test.sh build/release/bin/woodshed
#        cli_test.sh /usr/lib/wine/wine64 build/windows/bin/woodshed.exe
set -uo pipefail

source "$(dirname "${BASH_SOURCE[0]}")/cli_harness.sh" cli-test "$@"

for tool in python3 sox; do
  command -v "$tool" > /dev/null || { echo "note: $tool not found, CLI checks skipped"; exit 0; }
done
native=$(( 1 - emulated ))

# json EXPR: evaluates EXPR on each JSON line of $out (as j), prints the last.
json() { python3 -c 'import json, sys
for line in sys.stdin:
    j = json.loads(line)
print(eval(sys.argv[1]))' "$1" <<< "$out" 2>&1; }
rms() { sox "$1" -n stat 2>&1 | awk '/^RMS +amplitude/ { print $3 }'; }
near() { awk -v v="$1" -v e="$2" -v t="$3" 'BEGIN { d = v - e; if (d < 0) d = -d; exit !(v != "" && d <= t) }'; }
# CONDITION; verdict NAME: a pass when the condition just held.
verdict() {
  if [ $? -eq 0 ]; then pass; else fail "$1: rc $rc, out '$out', err '$err'"; fi
}

# ---- tones of known pitch through the tuner (JSON) -----------------------------
# note detune rate   tone-a4 tune-option   expect cents  state
pitch_cases=(
  "E2  0    48000  440  -               E2    0      in tune"
  "A4  0    8000   440  -               A4    0      in tune"
  "C6  0    96000  440  -               C6    0      in tune"
  "A2  20   48000  440  -               A2    20     pitched"
  "E2  55   44100  440  -               F2    -45    pitched"
  "D3  4    48000  440  --tolerance=2   D3    4      pitched"
  "A4  0    48000  432  --a4=432        A4    0      in tune"
  "A2  0    22050  440  --note=Bb2      A#2   -100   pitched"
)
for c in "${pitch_cases[@]}"; do
  read -r note detune rate a4 opt expect cents state <<< "$c"
  run tone tone.wav --note "$note" --cents "$detune" --rate "$rate" --a4 "$a4" --seconds 2
  [ "$opt" = - ] && opt=--slow  # the default settings, smoothed more slowly
  run tune tone.wav --final-only --json "$opt"
  got=$(json '"%s %.1f %s %s" % (j["note"], j["cents"], j["state"], j["final"])')
  read -r g_note g_cents g_state <<< "$got"
  if [ "$rc" -eq 0 ] && [ "$g_note" = "$expect" ] && near "$g_cents" "$cents" 1.5 && [ "${got#* * }" = "$state True" ]; then
    pass
  else
    fail "$note ${detune}c at $rate Hz, $opt: got '$got', want $expect $cents $state; $err"
  fi
done

# The time line as JSON Lines: reports every 0.5 s, all A2; the header on stderr.
run tone a2.wav --seconds 3
run tune a2.wav --every 0.5 --json
times=$(python3 -c 'import json, sys; print(" ".join("%s:%s" % (j.get("time", "end"), j["note"]) for j in map(json.loads, sys.stdin)))' <<< "$out")
[ "$times" = "0.5:A2 1.0:A2 1.5:A2 2.0:A2 2.5:A2 3.0:A2 end:A2" ]; verdict "time line: $times"
grep -q '^a2.wav: 3.000 s, 48000 Hz, 1 channel' <<< "$err"; verdict "header on stderr"

# ---- formats and pipes -----------------------------------------------------------
# Every encoding through the tuner, with sox as the independent writer.
run tone a3.wav --note A3 --seconds 1.5
for enc in "-b 24" "-b 32 -e floating-point" "-b 8" "-c 2" "-r 6000" ".flac"; do
  if [ "$enc" = .flac ]; then sox a3.wav f.flac; f=f.flac; else sox a3.wav $enc f.wav; f=f.wav; fi
  run tune "$f" --final-only --json
  [ "$(json 'j["note"]')" = A3 ]; verdict "A3 as $enc"
done
# '-' both ways, through a pipe that cannot seek, and the same sound as the file.
"${ws[@]}" tone - --note A3 --seconds 1.5 2> /dev/null | "${ws[@]}" tune - --final-only --json > stdout.txt 2> stderr.txt
rc=$?; out=$(tr -d '\r' < stdout.txt); err=$(tr -d '\r' < stderr.txt)
[ "$(json 'j["note"]')" = A3 ]; verdict "tone - | tune -"
"${ws[@]}" tone - --note A3 --seconds 1.5 2> /dev/null > piped.wav
cmp -s piped.wav a3.wav; verdict "tone - writes what tone FILE writes"
"${ws[@]}" click --render - --bars 2 2> /dev/null > piped.wav
run click --render c.wav --bars 2
cmp -s piped.wav c.wav; verdict "click --render -"
if [ "$native" -eq 1 ]; then
  run tune <("${ws[@]}" tone - --note E2 2> /dev/null) --final-only --json
  [ "$(json 'j["note"]')" = E2 ]; verdict "process substitution"
fi

# ---- click tracks: pulses on the frames the tempo gives -------------------------
cat > onsets.py <<'EOF'
import sys, wave, array
w = wave.open(sys.argv[1])
d = array.array("h", w.readframes(w.getnframes()))[::w.getnchannels()]
bad = [p for p in map(int, sys.argv[2:]) if any(d[max(0, p - 64):p]) or not any(d[p:p + 2])]
print(w.getnframes(), "ok" if not bad else "no click at %s" % bad)
EOF
# name      frames  onsets                              options
click_cases=(
  "count-in  288000  $(seq -s, 0 24000 264000)          --bars 2 --count-in 1"
  "110bpm    192436  $(awk 'BEGIN { for (k = 0; k < 8; k++) printf "%d,", k * 2646000 / 110 }') --bars 2 --bpm 110 --rate 44100"
  "swing     96000   0,14400,24000,38400,48000,62400     --bars 1 --sub 2 --swing 0.6"
  "poly      96000   0,24000,32000,48000,64000,72000     --bars 1 --sound tick --poly 3"
  "ramp      378285  0,96000,178285,250285,314285        --bars 5 --ramp-to 180 --ramp-every 1 --ramp-step 20"
  "linear    465188  0,115200,207360,284160,349988       --bars 6 --bpm 100 --ramp-to 200 --ramp-every 4 --linear"
)
for c in "${click_cases[@]}"; do
  read -r name frames onsets opts <<< "$c"
  run click --render "$name.wav" $opts --json
  got=$(python3 onsets.py "$name.wav" ${onsets//,/ } 2>&1)
  [ "$got" = "$frames ok" ] && [ "$(json 'j["frames"]')" = "$frames" ]; verdict "click $name: $got"
done
run click --render c.wav --bars 1 --sound cowbell --json
[ "$(json 'sorted(j)')" = "['bars', 'beats_per_bar', 'bpm', 'channels', 'count_in_bars', 'file', 'frames', 'sample_rate', 'seconds', 'sound']" ]; verdict "click JSON keys"

# ---- the take tools on every format -------------------------------------------------
# A take that is the backing 50 ms late (2205 frames at 44.1 kHz) with a quiet
# tone of its own: align must find 2205, clean must take the backing out.
sox -n -r 44100 -b 16 -c 2 back.wav synth 6 pinknoise vol 0.5 2> /dev/null
sox back.wav take.wav delay 0.05 remix 1 2> /dev/null
for enc in "16 -b 16" "24 -b 24" "32f -b 32 -e floating-point" "flac .flac"; do
  read -r name opts <<< "$enc"
  if [ "$opts" = .flac ]; then t=t.flac; sox take.wav "$t"; else t=t$name.wav; sox take.wav $opts "$t"; fi
  run align back.wav "$t" --json
  [ "$(json '(j["delay_frames"], j["valid"], j["sample_rate"])')" = "(2205, True, 44100)" ]; verdict "align $name"
  run clean back.wav "$t"
  db=$(sed -nE 's/^cleaned .*: ([0-9.]+) dB removed.*/\1/p' <<< "$out")
  out_file=$t
  [ "$name" = flac ] && out_file=t.clean.wav
  bits=$(sox --i -b "$out_file" 2> /dev/null)
  want_bits=${name%f}
  [ "$name" = flac ] && want_bits=16
  # The backing made all of the take: cleaned, at least 30 dB of it is gone.
  ratio=$(awk -v a="$(rms "$out_file")" -v b="$(rms take.wav)" 'BEGIN { print (a > 0 ? b / a : 1e9) }')
  awk -v d="${db:-0}" 'BEGIN { exit !(d >= 30) }' && [ "$bits" = "$want_bits" ] && awk -v r="$ratio" 'BEGIN { exit !(r >= 31.6) }' \
    && [ -z "$(ls -A | grep -E 'wstmp|taw')" ]; verdict "clean $name: ${db:-?} dB, $bits-bit $out_file"
done
cmp -s <(sox t.flac -t raw - 2> /dev/null) <(sox take.wav -t raw - 2> /dev/null); verdict "a FLAC take stays as it was"
cat back.wav | "${ws[@]}" align - take.wav --json > stdout.txt 2> stderr.txt
rc=$?; out=$(tr -d '\r' < stdout.txt); err=$(tr -d '\r' < stderr.txt)
[ "$(json 'j["delay_frames"]')" = 2205 ]; verdict "align reads the backing from stdin"
sox -n -r 44100 -b 16 other.wav synth 6 whitenoise vol 0.5 2> /dev/null
run align back.wav other.wav --json
[ "$rc" -eq 1 ] && [ "$(json 'j["valid"]')" = False ]; verdict "align without a trustworthy delay exits 1"
head -c 200000 take.wav > cut.wav
run align back.wav cut.wav
grep -q 'cut.wav: the header gives 6.050 s of audio, the file holds 2.267 s' <<< "$err"; verdict "a header that promises more is warned about"
# Beat 1 from a click track heard 0.3 s into the take; refused at a tempo it does not keep.
run click --render ck.wav --bars 2 --count-in 1 && sox ck.wav ckt.wav pad 0.3 2> /dev/null
run report ckt.wav --bpm 120 --backing ck.wav
ok=$rc; grep -q "^beat 1 at 0.300 s" <<< "$out" && run report ckt.wav --bpm 100 --backing ck.wav
[ "$ok" -eq 0 ] && [ "$rc" -eq 1 ]; verdict "report: beat 1 from a click track, refused off its tempo"

# ---- each failure class: one line naming the file and the reason, its status ----
printf 'not audio\n' > text.wav
: > empty.wav
mkdir -p folder
sox -n -r 48000 -b 16 r48.wav synth 1 sine 440
sox -n -r 44100 -b 24 b24.wav synth 0.1 sine 440
sox -n -r 8000 -b 16 -c 256 ch256.wav synth 0.01 sine 440
sox -n -r 8000 -e ms-adpcm adpcm.wav synth 0.1 sine 440
# status  stderr starts with                        arguments
failure_cases=(
  "3 missing.wav: no such file                 align back.wav missing.wav"
  "3 folder: is a directory                    clean back.wav folder"
  "3 empty.wav: empty file                     tune empty.wav"
  "3 text.wav: not a WAV, FLAC or MP3 file     clean back.wav text.wav"
  "3 r48.wav: 48000 Hz, the backing 44100 Hz   align back.wav r48.wav"
  "3 ch256.wav: 256 channels; files of up to   tune ch256.wav"
  "3 adpcm.wav: WAV of format 0x0002, which is  tune adpcm.wav"
  "2 --delay 99999999 frames is beyond         clean back.wav take.wav --delay 99999999"
  "2 --from 100 is past the end of the backing  align back.wav take.wav --from 100"
  "2 the take and the backing are the same     clean take.wav take.wav"
  "2 G9 (12543.9 Hz) cannot be sounded         tone x.wav --note G9"
  "2 --sound wants woodblock, beep             click --sound 9"
  "2 unknown option '--bogus' for 'tune'       tune a2.wav --bogus"
  "2 --a4 wants a number from 400 to 480       tune a2.wav --a4 abc"
  "2 --json and --render - would both write    click --render - --bars 1 --json"
  "5 no-such-dir/x.wav: No such file           tone no-such-dir/x.wav"
  "5 no-such-dir/x.wav: No such file           click --render no-such-dir/x.wav --bars 1"
  "5 folder: is a directory                    record --backing back.wav --take folder"
  "2 record: --backing FILE is required        record --take t.wav"
  "2 record: the take must not be the backing  record --backing back.wav --take back.wav"
  "2 --from wants a number from 0              record --backing back.wav --take t.wav --from -1"
  "5 no-such-dir/t.wav: no such folder         record --backing back.wav --take no-such-dir/t.wav"
)
if [ -n "${PULSE_SERVER:-}" ]; then  # the device opens before the backing is read
  failure_cases+=(
    "3 missing.wav: no such file                 record --backing missing.wav --take t.wav"
    "3 b24.wav: 24-bit PCM WAV; the backing      record --backing b24.wav --take t.wav"
    "4 no capture devices match 'no-such-input'  record --backing back.wav --take t.wav --input no-such-input"
  )
fi
for c in "${failure_cases[@]}"; do
  want=${c%% *}
  rest=${c#* }
  text=$(sed -E 's/ {2,}.*//' <<< "$rest")
  read -r -a args <<< "$(sed -E 's/^.*[^ ] {2,}//' <<< "$rest")"
  run "${args[@]}"
  if [ "$rc" -ne "$want" ] && [ "$emulated" -eq 1 ]; then
    echo "retrying under Wine (status $rc): ${args[*]}"
    run "${args[@]}"  # Wine itself now and then fails a program it runs
  fi
  if [ "$rc" -eq "$want" ] && [ "$(grep -c '' <<< "$err")" -eq 1 ] && [[ "$err" == "woodshed: $text"* ]]; then
    pass
  else
    fail "'${args[*]}': exit $rc, want $want and 'woodshed: $text...'; got '$err'"
  fi
done
if [ "$native" -eq 1 ]; then
  "${ws[@]}" --help > /dev/full 2> stderr.txt
  [ $? -eq 5 ] && grep -q '^woodshed: stdout: No space left' stderr.txt; verdict "a full stdout exits 5"
  if [ "$(id -u)" -ne 0 ]; then  # root writes anywhere
    cp take.wav ro.wav && chmod a-w ro.wav
    run clean back.wav ro.wav
    [ "$rc" -eq 5 ] && [[ "$err" == "woodshed: ro.wav: read-only"* ]]; verdict "a read-only take is not replaced"
  fi
fi
[ ! -e x.wav ] && [ ! -e t.wav ] && [ -z "$(ls -A | grep -E 'tmp|taw')" ]; verdict "refused commands leave no file behind"

# ---- help, man page, completion ---------------------------------------------------
for c in tune tone click devices record align clean; do
  run "$c" --help
  [ "$rc" -eq 0 ] && grep -q 'Exit status: 0' <<< "$out"; verdict "$c --help documents its exit statuses"
done
if [ "$native" -eq 1 ]; then
  run --man
  [ "$(grep -c '^\.SS ' <<< "$out")" -eq 9 ] && grep -q '^\.TH WOODSHED 1' <<< "$out"; verdict "man page"
  build=$(dirname "$(dirname "${ws[last]}")")
  if [ -f "$build/CMakeCache.txt" ] && command -v cmake > /dev/null; then
    cmake --install "$build" --prefix "$PWD/prefix" > /dev/null 2>&1
    [ -s prefix/share/man/man1/woodshed.1 ] && [ -s prefix/share/bash-completion/completions/woodshed ] \
      && [ -s prefix/share/zsh/site-functions/_woodshed ]; verdict "man page and completions install"
  fi
  run --completion bash
  bash -n <(echo "$out") && grep -q 'clean) opts="--delay --from' <<< "$out"; verdict "bash completion"
fi

# ---- on a sound server: devices, live tuner, click, record ------------------------
# The test command runs a private server whose null sink is the default output
# and whose monitor, the default input, hears what is played into it.
if [ -n "${PULSE_SERVER:-}" ]; then
  run devices --json
  [ "$(json '[sorted(d) for d in j["capture"][:1]], "Woodshed_null_sink" in [d["name"] for d in j["playback"]]')" = "([['default', 'id', 'index', 'name', 'recordable']], True)" ]; verdict "devices --json"
  # The sink by index, by name and by ID; a name nobody has is a device error.
  sink_id=$(json '[d["id"] for d in j["playback"] if d["name"] == "Woodshed_null_sink"][0]')
  for device in 0 woodshed_null "$sink_id"; do
    run click --seconds 0.5 --device "$device"
    [ "$rc" -eq 0 ] && grep -q 'Woodshed_null_sink' <<< "$out"; verdict "click --device $device"
  done
  run click --seconds 1 --device nothing-like-it
  [ "$rc" -eq 4 ] && [[ "$err" == "woodshed: no playback devices match 'nothing-like-it'"* ]]; verdict "unknown device"

  # The tuner hears an A3 played into the sink (long enough to outlast the
  # start of a program under an emulator; stopped once the tuner is done).
  if command -v pacat > /dev/null; then
    sox -n -r 48000 -c 1 -e floating-point -b 32 -t raw a3.raw synth 30 sine 220 vol 0.5
    pacat --playback --raw --format=float32le --rate=48000 --channels=1 a3.raw &
    player=$!
    run tune --seconds 2 --json
    kill "$player" 2> /dev/null
    wait "$player" 2> /dev/null
    grep -q '"note":"A3".*"state":"in tune"' <<< "$out"; verdict "live tuner on A3"
  fi
  # Takes are complete WAV files whose header states their size, also when a
  # signal ends them: one second from the default input under a name that is
  # not ASCII, one to the backing's end from the monitor chosen by name.
  complete() {
    python3 -c 'import wave, sys, os
w = wave.open(sys.argv[1])
ok = (w.getnchannels(), w.getsampwidth(), w.getframerate()) == (1, 2, 44100)
print("%.3f s" % (w.getnframes() * 1000 // 44100 / 1000) if ok and w.getnframes() * 2 + 44 == os.path.getsize(sys.argv[1]) else "incomplete")' "$1" 2>&1
  }
  run record --backing back.wav --take "t ä.wav" --seconds 1
  # A repair where the server fell behind drops a few milliseconds.
  len=$(complete "t ä.wav")
  [ "$rc" -eq 0 ] && near "${len% s}" 1 0.15 && grep -q "^take: 't ä\.wav', $len\$" <<< "$out"; verdict "one-second take: $len"
  run devices --json
  monitor=$(json '[d["name"] for d in j["capture"] if "Woodshed_null_sink" in d["name"]][0]')
  run record --backing back.wav --take t2.wav --from 5.5 --input "$monitor"
  len=$(complete t2.wav)
  [ "$rc" -eq 0 ] && near "${len% s}" 1.5 0.3 && grep -q "input \"$monitor\"" <<< "$out"; verdict "take to the backing's end from $monitor: $len"
  if [ "$native" -eq 1 ]; then
    for sig in INT TERM HUP; do
      "${ws[@]}" record --backing back.wav --take "sig$sig.wav" --json > stdout.txt 2> stderr.txt &
      pid=$!
      sleep 1.5
      kill -"$sig" "$pid"
      wait "$pid"
      rc=$?
      out=$(cat stdout.txt)
      [ "$rc" -eq 130 ] && [ "$(complete "sig$sig.wav")" != incomplete ] \
        && [ "$(json 'j["interrupted"]')" = True ]; verdict "record ended by SIG$sig"
    done
  fi
elif [ -n "${WOODSHED_REQUIRE_SOUND_SERVER:-}" ]; then
  fail "no sound server (PULSE_SERVER unset) although one is required"
else
  echo "note: no sound server (PULSE_SERVER unset), device checks skipped"
fi

# ---- without any sound server or card ---------------------------------------------
# One line, and the demo runs its own private server and leaves nothing behind.
if [ "$native" -eq 1 ] && [ "$(uname -s)" = Linux ] && [ ! -d /dev/snd ]; then
  mkdir -p bare/tmp bare/home bare/runtime
  chmod 700 bare/runtime
  bare=(env -u PULSE_SERVER -u PULSE_CLIENTCONFIG -u PULSE_COOKIE HOME="$PWD/bare/home"
        XDG_RUNTIME_DIR="$PWD/bare/runtime" TMPDIR="$PWD/bare/tmp")
  "${bare[@]}" "${ws[@]}" devices > stdout.txt 2> stderr.txt
  rc=$?
  [ "$rc" -eq 4 ] && [ ! -s stdout.txt ] \
    && grep -q 'no sound server or sound card found (tried: ' stderr.txt; verdict "devices without sound"
  if command -v pulseaudio > /dev/null; then
    "${bare[@]}" "${ws[@]}" demo --dir demo1 > stdout.txt 2> stderr.txt
    rc=$?
    out=$(cat stdout.txt)
    quieter=$(sed -nE 's/.*the leak is (-?[0-9.]+) dB quieter/\1/p' <<< "$out")
    [ "$rc" -eq 0 ] && grep -q "notes are named as played" <<< "$out" && [ -s demo1/take-cleaned.wav ] \
      && near "${quieter:-0}" 60 40; verdict "demo on a private server"
    sleep 0.5
    [ -z "$(ls bare/tmp)" ] && ! pgrep -f "$PWD/bare/tmp" > /dev/null; verdict "demo left no server behind"
  fi
fi

# ---- Ctrl-C in an offline job ---------------------------------------------------------
if [ "$native" -eq 1 ]; then
  run tone long.wav --seconds 60 --rate 8000
  "${ws[@]}" tune long.wav --every 0.01 --context 60 > stdout.txt 2> stderr.txt &
  pid=$!
  sleep 1
  kill -INT "$pid"
  wait "$pid"
  rc=$?
  [ "$rc" -eq 130 ] && grep -q '^woodshed: interrupted' stderr.txt && ! grep -q '^final:' stdout.txt; verdict "Ctrl-C"
fi

finish

