# SPDX-License-Identifier: MIT
"""Renders two bars of a 3/4 click at 96 BPM to a WAV file (click.wav or the
first argument); with --live, plays it for four seconds, then faster."""
import array
import sys
import time
import wave

import woodshed

RATE = 48000
config = woodshed.MetronomeConfig(bpm=96, beats_per_bar=3, accent_pattern=[woodshed.Level.ACCENT,
                                                                          woodshed.Level.NORMAL,
                                                                          woodshed.Level.SOFT])
frames = round(2 * 3 * 60 / 96 * RATE)  # two bars of three beats
clicks = woodshed.render_metronome(config, RATE, frames)

path = next((a for a in sys.argv[1:] if not a.startswith("--")), "click.wav")
with wave.open(path, "wb") as w:
    w.setnchannels(1)
    w.setsampwidth(2)
    w.setframerate(RATE)
    w.writeframes(array.array("h", (round(v * 32767) for v in clicks)).tobytes())
print(f"{path}: {frames / RATE:.2f} s, {config.bpm:g} BPM")

if "--live" in sys.argv:
    with woodshed.Metronome() as m:
        m.start(config)  # the default output
        for step in range(16):
            if step == 8:
                m.set_tempo(120)
            time.sleep(0.5)
            s = m.snapshot()
            if s is not None:
                print(f"bar {s.bar + 1} beat {s.beat + 1} at {s.bpm:g} BPM")
