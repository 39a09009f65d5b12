# SPDX-License-Identifier: MIT
"""The metronome through the binding: clicks rendered offline land on the
frames their tempo gives, and the live click's position follows the same
arithmetic."""
import math
import time
import unittest

import woodshed
from woodshed import ClickState, MetronomeConfig

from .support import SINK_DESCRIPTION, LiveTest, wait_for


def pulse_frame(k: int, rate: int, ubpm: int) -> int:
    """Pulse k of a steady click starts on frame floor(k x 60 / bpm x rate)."""
    return k * rate * 60 * woodshed._records.UBPM // ubpm


def onsets(x, quiet: int = 2000) -> list[int]:
    """Frames where a click starts: above a small threshold after `quiet` frames below it."""
    out, silent = [], quiet
    for i, v in enumerate(x):
        if abs(v) > 1e-3:
            if silent >= quiet:
                out.append(i)
            silent = 0
        else:
            silent += 1
    return out


class Render(unittest.TestCase):
    def test_every_pulse_starts_on_its_frame(self):
        for bpm, rate, beats in [(120, 48000, 4), (110, 44100, 3), (97.5, 22050, 7)]:
            with self.subTest(bpm=bpm, rate=rate):
                config = MetronomeConfig(bpm=bpm, beats_per_bar=beats)
                x = woodshed.render_metronome(config, rate, 4 * rate)
                self.assertEqual(len(x), 4 * rate)
                expected = [f for f in (pulse_frame(k, rate, config.tempo_ubpm) for k in range(20)) if f < len(x)]
                # The click's first sample is zero (a triangle from its start).
                got = onsets(x)
                self.assertEqual(len(got), len(expected))
                for at, due in zip(got, expected):
                    self.assertIn(at - due, (0, 1))

    def test_channels_carry_the_same_click(self):
        config = MetronomeConfig(bpm=140, subdivisions=2, swing=0.6)
        mono = woodshed.render_metronome(config, 44100, 30000)
        stereo = woodshed.render_metronome(config, 44100, 30000, channels=2)
        self.assertEqual(stereo[0::2], mono)
        self.assertEqual(stereo[1::2], mono)

    def test_bad_arguments_raise(self):
        c = MetronomeConfig()
        for what, args in {"no config": (None, 48000, 64), "no frames": (c, 48000, 0),
                           "negative frames": (c, 48000, -5), "no channels": (c, 48000, 64, 0),
                           "nine channels": (c, 48000, 64, 9)}.items():
            with self.subTest(what), self.assertRaises(woodshed.InvalidArgument):
                woodshed.render_metronome(*args)
        with self.assertRaises(TypeError):
            MetronomeConfig(tempo=100)


class Live(LiveTest):
    def test_the_live_position_follows_the_tempo(self):
        with woodshed.Metronome() as m:
            with self.assertRaises(woodshed.AlreadyCreated):
                woodshed.Metronome().create()
            self.assertTrue(any(SINK_DESCRIPTION in d.name for d in m.devices()))
            self.assertIsNone(m.snapshot())
            config = MetronomeConfig(bpm=190, count_in_bars=1)
            m.start(config)
            s = m.status()
            self.assertEqual((s.device_state, s.last_result, s.used_default), (woodshed.DeviceState.RUNNING, 0, 1))
            # Every snapshot of this run, through the count-in bar into the first bars.
            snaps = {}
            end = time.monotonic() + 10
            while time.monotonic() < end and (len({s.state for s in snaps.values()}) < 2 or len(snaps) < 8):
                s = m.snapshot()
                if s is not None and s.run_id == 1 and s.state != ClickState.STOPPED:
                    snaps[s.frame_clock] = s
                time.sleep(0.02)
            self.assertGreaterEqual(len(snaps), 8)
            self.assertEqual({s.state for s in snaps.values()}, {ClickState.COUNT_IN, ClickState.RUNNING})
            for fc, s in snaps.items():
                rate = s.sample_rate
                # The last pulse that started before the block's end.
                k = math.ceil(fc * config.tempo_ubpm / (rate * 60 * woodshed._records.UBPM)) - 1
                with self.subTest(frame_clock=fc):
                    self.assertEqual((s.bar, s.beat, s.subdivision), (k // 4 - 1, k % 4, 0))
                    # Bar and beat are the last pulse's; the state changes
                    # while the count-in's last beat sounds.
                    if k != 3:
                        self.assertEqual(s.state, ClickState.COUNT_IN if k < 3 else ClickState.RUNNING)
                    self.assertEqual(s.bpm, 190)
                    start = pulse_frame(k, rate, config.tempo_ubpm)
                    length = pulse_frame(k + 1, rate, config.tempo_ubpm) - start
                    self.assertAlmostEqual(s.beat_phase, (fc - start) / length, delta=1e-3)

            m.set_tempo(90)
            self.assertTrue(wait_for(lambda: (s := m.snapshot()) and s.bpm == 90, timeout=3))
            for command, state in [(m.pause, ClickState.PAUSED), (m.resume, ClickState.RUNNING),
                                   (m.stop, ClickState.STOPPED)]:
                command()
                self.assertTrue(wait_for(lambda: (s := m.snapshot()) and s.state == state, timeout=3), state)


if __name__ == "__main__":
    unittest.main()
