# SPDX-License-Identifier: MIT
"""Tunes a generated string tone offline; with --live, shows five seconds of
live readings from the default input."""
import math
import sys
import time

import woodshed

RATE = 48000
# Two seconds of a G string 6 cents sharp: three decaying harmonics.
f = 196.0 * 2 ** (6 / 1200)
tone = [math.exp(-t / RATE) * sum(0.4 / h * math.sin(2 * math.pi * h * f * t / RATE) for h in (1, 2, 3))
        for t in range(2 * RATE)]

r = woodshed.tune_offline(tone, RATE, woodshed.TunerConfig(tolerance_cents=3))
print(f"{r.note_name}  {r.frequency_hz:.2f} Hz  {r.cents:+.1f} cents  {woodshed.ReadingState(r.state).name}")

if "--live" in sys.argv:
    with woodshed.Tuner() as tuner:
        for d in tuner.devices():
            print("input:", d.name, "(default)" if d.is_default else "")
        tuner.start()  # the default input
        for _ in range(20):
            time.sleep(0.25)
            r = tuner.reading()
            if r is not None:
                print(f"{r.note_name or '--':4} {r.cents:+6.1f} cents  {r.level_db:6.1f} dBFS")
