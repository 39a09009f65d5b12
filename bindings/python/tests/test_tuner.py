# SPDX-License-Identifier: MIT
"""The tuner through the binding: tones of known pitch offline, and the live
engine's devices and status. That a tone in the sink is heard is the
library's own live test."""
import array
import math
import unittest

import woodshed

from .support import SINK_DESCRIPTION, LiveTest, sine


class Offline(unittest.TestCase):
    def test_tones_of_known_pitch(self):
        cents8 = 2 ** (8 / 1200)
        rows = [  # frequency, rate, config, note, name, cents
            (82.406889, 44100, None, 40, "E2", 0.0),
            (440.0 * cents8, 48000, woodshed.TunerConfig(a4_hz=442), 69, "A4", 8 - 1200 * math.log2(442 / 440)),
            (440.0 * cents8, 96000, woodshed.TunerConfig(fixed_note=64), 64, "E4", 508.0),
        ]
        for freq, rate, config, note, name, cents in rows:
            with self.subTest(f"{freq:.2f} Hz at {rate}"):
                r = woodshed.tune_offline(sine(freq, rate, rate), rate, config)
                self.assertEqual((r.note, r.note_name), (note, name))
                self.assertAlmostEqual(r.cents, cents, delta=0.5)
                self.assertAlmostEqual(r.frequency_hz, freq, delta=freq * 0.001)
                self.assertAlmostEqual(r.level_db, 20 * math.log10(0.5 / math.sqrt(2)), delta=0.2)
                self.assertEqual(r.state, woodshed.ReadingState.IN_TUNE if abs(cents) <= 5
                                 else woodshed.ReadingState.PITCHED)

    def test_every_kind_of_sample_buffer_reads_the_same(self):
        tone = sine(196.0, 48000, 24000)
        stereo = array.array("f", (v for x in tone for v in (x, x)))
        expected = woodshed.tune_offline(tone, 48000)
        self.assertEqual(expected.note, 55)
        # 2048-sample windows every 1024: 22 frames, the last ending at 23552 (490666 us).
        self.assertEqual((expected.frame_count, expected.time_us), (22, 490666))
        track = woodshed.track_offline(tone, 48000, as_numpy=False)
        self.assertEqual((len(track), bytes(track[-1])), (22, bytes(expected)))
        inputs = {
            "list": (list(tone), 1), "array": (tone, 1), "memoryview": (memoryview(tone), 1),
            "read-only view": (memoryview(tone.tobytes()).cast("f"), 1), "doubles": (array.array("d", tone), 1),
            "interleaved stereo": (stereo, 2),
        }
        for what, (samples, channels) in inputs.items():
            with self.subTest(what):
                r = woodshed.tune_offline(samples, 48000, channels=channels)
                self.assertEqual(bytes(r), bytes(expected))

    def test_short_buffers_give_no_reading_and_bad_arguments_raise(self):
        self.assertIsNone(woodshed.tune_offline(sine(440, 48000, 2047), 48000))
        self.assertIsNotNone(woodshed.tune_offline(sine(440, 48000, 2048), 48000))
        for what, samples, channels in [("no samples", [], 1), ("no channels", [0.0] * 4096, 0),
                                        ("33 channels", [0.0] * 33 * 2048, 33)]:
            with self.subTest(what), self.assertRaises(woodshed.InvalidArgument):
                woodshed.tune_offline(samples, 48000, channels=channels)
        with self.assertRaises(TypeError):
            woodshed.tune_offline(b"\0" * 8192, 48000)


class Live(LiveTest):
    def test_lists_the_sink_monitor_and_chooses_it_by_id(self):
        with woodshed.Tuner() as t:
            with self.assertRaises(woodshed.AlreadyCreated):
                woodshed.Tuner().create()
            self.assertIsNone(t.reading())
            devices = t.devices()
            monitor = next(d for d in devices if SINK_DESCRIPTION in d.name)
            self.assertRegex(monitor.id, "^[0-9a-f]+$")
            self.assertEqual(sum(d.is_default for d in devices), 1)
            for device, default_used in [(None, 1), (monitor, 0), (monitor.id.upper(), 0), ("zz", 1)]:
                with self.subTest(device=device):
                    t.start(device)
                    s = t.status()
                    self.assertEqual((s.state, s.result, s.default_used), (woodshed.EngineState.RUNNING, 0,
                                                                            default_used))
                    self.assertGreater(s.sample_rate, 0)
            t.stop()
            self.assertFalse(t.running)
        with self.assertRaises(woodshed.NotCreated):
            t.status()


if __name__ == "__main__":
    unittest.main()
