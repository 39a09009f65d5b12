# SPDX-License-Identifier: MIT
"""The take tools through the binding on WAV files written here: a backing,
and a take that hears it a known number of frames late under a quiet
musician."""
import math
import os
import tempfile
import unittest

import woodshed

from .support import noise, read_wav, sine, write_wav

RATE = 44100


class Takes(unittest.TestCase):
    def setUp(self):
        self._dir = tempfile.TemporaryDirectory(prefix="woodshed-py-takes-")
        self.dir = self._dir.name
        self.addCleanup(self._dir.cleanup)

    def make(self, frames: int, delay: int, offset: int = 0, take_rate: int = RATE):
        """backing.wav, and take.wav: the backing from `offset` on, `delay`
        frames late at half level, with a sine 20 dB under that leak."""
        backing = noise(frames + offset, 0.5, seed=frames + delay)
        leak_rms = 0.5 * 0.5 / math.sqrt(3)  # uniform noise of amplitude 0.5, at half level
        self.musician = sine(330.0, RATE, frames, amp=leak_rms / 10 * math.sqrt(2))
        heard = [0.0] * delay + backing[offset:offset + frames - delay]
        take = [0.5 * b + m for b, m in zip(heard, self.musician)]
        paths = os.path.join(self.dir, "backing.wav"), os.path.join(self.dir, "take.wav")
        write_wav(paths[0], backing, RATE)
        write_wav(paths[1], take, take_rate)
        return paths

    def test_analyze_finds_the_delay_introduced(self):
        # Offset and search range reach the library (the search itself is its own test).
        backing, take = self.make(2 * RATE, 3000, offset=1500 * RATE // 1000)
        a = woodshed.analyze_take(backing, take, 1500, 0, 500)
        self.assertEqual((a.delay_frames, a.valid, a.sample_rate), (3000, 1, RATE))
        self.assertGreaterEqual(a.score, 8)
        self.assertEqual(woodshed.analyze_take(backing, take, 1500, 600, 900).valid, 0)

    def test_clean_leaves_the_musician(self):
        backing, take = self.make(100000, 700)
        a = woodshed.analyze_take(backing, take)
        c = woodshed.clean_take(backing, take, 0, a.delay_frames)
        self.assertEqual((c.cleaned, c.delay_frames, c.sample_rate), (1, 700, RATE))
        # The leak was 20 dB over the musician: removing it takes off about that.
        self.assertGreater(c.reduction_db, 15)
        self.assertLess(c.reduction_db, 25)
        _, params = read_wav(take)
        self.assertEqual((params.nchannels, params.sampwidth, params.framerate, params.nframes), (1, 2, RATE, 100000))
        self.assertEqual(sorted(os.listdir(self.dir)), ["backing.wav", "take.wav"])

    def test_files_that_cannot_be_used_raise(self):
        backing, take = self.make(20000, 100)
        bad = {name: os.path.join(self.dir, name) for name in ("notes.txt", "short.wav", "missing.wav")}
        with open(bad["notes.txt"], "w") as f:
            f.write("hello")
        write_wav(bad["short.wav"], noise(8191, 0.5, seed=2), RATE)
        rows = [  # reference, take, what ta_clean raises (one per error class the binding maps)
            (bad["missing.wav"], take, FileNotFoundError), (bad["notes.txt"], take, woodshed.UnsupportedFormat),
            (backing, bad["short.wav"], woodshed.InvalidArgument),
        ]
        for reference, target, error in rows:
            with self.subTest(reference=os.path.basename(reference), take=os.path.basename(target)):
                with self.assertRaises(error):
                    woodshed.clean_take(reference, target, 0, 100)
        with self.assertRaises(ValueError):
            woodshed.analyze_take(backing, take + "\0x")


if __name__ == "__main__":
    unittest.main()
