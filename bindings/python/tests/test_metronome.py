# SPDX-License-Identifier: MIT
"""The metronome through the binding: the config and buffers marshalled
offline, and the live engine's commands and snapshots. Where the clicks land
is proven by the library's own tests."""
import unittest

import woodshed
from woodshed import ClickState, MetronomeConfig

from .support import SINK_DESCRIPTION, LiveTest, wait_for


class Render(unittest.TestCase):
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
            first = wait_for(lambda: (s := m.snapshot()) and s.run_id == 1 and s, timeout=5)
            self.assertIsNotNone(first, "no snapshot within 5 s")
            self.assertEqual(first.bpm, 190)
            self.assertIn(first.state, (ClickState.COUNT_IN, ClickState.RUNNING))
            self.assertGreater(first.sample_rate, 0)
            m.set_tempo(90)
            self.assertTrue(wait_for(lambda: (s := m.snapshot()) and s.bpm == 90, timeout=3))
            for command, state in [(m.pause, ClickState.PAUSED), (m.resume, ClickState.RUNNING),
                                   (m.stop, ClickState.STOPPED)]:
                command()
                self.assertTrue(wait_for(lambda: (s := m.snapshot()) and s.state == state, timeout=3), state)


if __name__ == "__main__":
    unittest.main()
