# SPDX-License-Identifier: MIT
"""Records a take while a backing track plays:
    recorder.py BACKING.wav TAKE.wav [SECONDS [START_MS]]
The backing is a 16-bit PCM WAV file; the take is written as mono 16-bit
44.1 kHz from the default input."""
import sys
import time

import woodshed

backing, take = sys.argv[1], sys.argv[2]
seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 5.0
start_ms = int(sys.argv[4]) if len(sys.argv) > 4 else 0

with woodshed.Recorder() as rec:
    rec.start(backing, take, start_ms=start_ms)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        s = rec.state()
        meter = "#" * round(s.input_peak * 30)
        print(f"\r{s.captured_frames / s.sample_rate:5.1f} s  input |{meter:30}|", end="", flush=True)
        time.sleep(0.1)
    print(f"\n{take}: {rec.stop()} ms")
