# SPDX-License-Identifier: MIT
"""Finds the backing track's delay in a take and removes its leak:
    takes.py BACKING.wav TAKE.wav [START_MS]
START_MS is where in the backing the take began. The take is rewritten."""
import sys

import woodshed

backing, take = sys.argv[1], sys.argv[2]
start_ms = int(sys.argv[3]) if len(sys.argv) > 3 else 0

try:
    a = woodshed.analyze_take(backing, take, start_ms, min_delay_ms=0, max_delay_ms=500)
except woodshed.UnsupportedFormat as e:
    sys.exit(f"{e.name}: both files must be 16-bit PCM WAV files of one sample rate")
print(f"delay {a.delay_frames} frames ({1000 * a.delay_frames / a.sample_rate:.1f} ms), score {a.score:.1f}")
if not a.valid:
    sys.exit("no clear delay between 0 and 500 ms: the take is left as it is")

c = woodshed.clean_take(backing, take, start_ms, a.delay_frames)
print(f"leak reduced by {c.reduction_db:.1f} dB; {take} rewritten")
