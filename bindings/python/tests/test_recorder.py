# SPDX-License-Identifier: MIT
"""The duplex recorder through the binding: a take recorded from the test
sink's monitor while a generated backing plays into the sink."""
import os

import woodshed

from .support import SINK_DESCRIPTION, LiveTest, noise, read_wav, wait_for, write_wav

RATE = woodshed.RECORDER_SAMPLE_RATE


class Live(LiveTest):
    def test_a_take_against_a_backing_is_a_complete_wav(self):
        backing = os.path.join(self.tmp.name, "backing.wav")
        take = os.path.join(self.tmp.name, "take.wav")
        write_wav(backing, noise(3 * RATE, 0.5, seed=5), RATE)
        with woodshed.Tuner() as t:  # the monitor's name, from a family of its own
            monitor = next(d.name for d in t.devices() if SINK_DESCRIPTION in d.name)
        with woodshed.Recorder() as r:
            with self.assertRaises(woodshed.AlreadyCreated):
                woodshed.Recorder().create()
            self.assertIsInstance(r.backend(), woodshed.Backend)
            self.assertIsNone(r.find_input("no device is called this"))
            input_id = r.find_input(monitor)
            self.assertRegex(input_id, "^[0-9a-f]*$")
            r.start(backing, take, input_id)
            self.assertTrue(r.recording)
            # A second and a half captured: a repair where the server fell behind
            # may drop some frames of it, never half a second.
            self.assertTrue(wait_for(lambda: r.state().captured_frames >= 1.5 * RATE, timeout=20),
                            "no 1.5 s recorded")
            s = r.state()
            self.assertEqual((s.sample_rate, s.recording, s.playback_done), (RATE, 1, 0))
            self.assertGreater(s.play_position, 0)
            length_ms = r.stop()
            self.assertFalse(r.recording)
            with self.assertRaises(woodshed.NotCreated):  # no take since the last stop
                r.stop()
        samples, params = read_wav(take)
        self.assertEqual((params.nchannels, params.sampwidth, params.framerate), (1, 2, RATE))
        self.assertEqual(params.nframes * 1000 // RATE, length_ms)
        self.assertGreaterEqual(length_ms, 1000)
        # The monitor heard the backing (noise of amplitude 0.5) through the sink.
        self.assertGreater(max(abs(v) for v in samples), 0.1)

    def test_a_backing_that_is_not_a_wav_is_refused_before_any_take(self):
        text = os.path.join(self.tmp.name, "notes.txt")
        with open(text, "w") as f:
            f.write("not audio")
        take = os.path.join(self.tmp.name, "refused.wav")
        with woodshed.Recorder() as r:
            with self.assertRaises(woodshed.InvalidArgument):
                r.start(text, take)
            with self.assertRaises(woodshed.InvalidArgument):
                r.start(None, None)
        self.assertFalse(os.path.exists(take))
