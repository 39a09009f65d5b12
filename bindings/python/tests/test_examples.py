# SPDX-License-Identifier: MIT
"""The example scripts that need no device run and print what they promise."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from .support import noise, read_wav, write_wav

EXAMPLES = pathlib.Path(__file__).resolve().parents[1] / "examples"


def run(script: str, *args: str) -> str:
    env = dict(os.environ, PYTHONPATH=str(EXAMPLES.parent))
    done = subprocess.run([sys.executable, str(EXAMPLES / script), *args], env=env, capture_output=True,
                          text=True, timeout=120)
    if done.returncode != 0:
        raise AssertionError(f"{script} exited with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout


class Examples(unittest.TestCase):
    def setUp(self):
        tmp = tempfile.TemporaryDirectory(prefix="woodshed-py-examples-")
        self.addCleanup(tmp.cleanup)
        self.dir = tmp.name

    def test_tuner_names_the_tone(self):
        self.assertRegex(run("tuner.py"), r"^G3  196\.\d\d Hz  \+6\.\d cents  PITCHED")

    def test_metronome_writes_two_bars(self):
        path = os.path.join(self.dir, "click.wav")
        run("metronome.py", path)
        _, params = read_wav(path)
        self.assertEqual((params.framerate, params.nframes), (48000, 180000))  # 6 beats at 96 BPM

    def test_takes_finds_and_removes_the_leak(self):
        backing, take = os.path.join(self.dir, "backing.wav"), os.path.join(self.dir, "take.wav")
        b = noise(44100, 0.5, seed=9)
        write_wav(backing, b, 44100)
        write_wav(take, [0.0] * 300 + [0.5 * v for v in b[:-300]], 44100)
        out = run("takes.py", backing, take)
        self.assertIn("delay 300 frames (6.8 ms)", out)
        self.assertIn("rewritten", out)


if __name__ == "__main__":
    unittest.main()
