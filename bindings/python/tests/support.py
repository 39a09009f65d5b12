# SPDX-License-Identifier: MIT
"""Signals, WAV files and the test sound server, for the binding's tests."""
from __future__ import annotations

import array
import math
import os
import random
import socket
import sys
import tempfile
import time
import unittest
import wave

SINK = "woodshed_sink"              # the null sink scripts/pulse-server.sh loads
SINK_DESCRIPTION = "Woodshed_null_sink"


def sine(freq: float, rate: float, n: int, amp: float = 0.5) -> array.array:
    step = 2 * math.pi * freq / rate
    return array.array("f", (amp * math.sin(step * i) for i in range(n)))


def noise(n: int, amp: float, seed: int) -> list[float]:
    rng = random.Random(seed)
    return [rng.uniform(-amp, amp) for _ in range(n)]


def write_wav(path: str, samples, rate: int, channels: int = 1) -> None:
    pcm = array.array("h", (max(-32768, min(32767, round(v * 32767))) for v in samples))
    if sys.byteorder == "big":
        pcm.byteswap()
    with wave.open(path, "wb") as w:
        w.setnchannels(channels)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(pcm.tobytes())


def read_wav(path: str) -> tuple[list[float], wave._wave_params]:
    with wave.open(path, "rb") as w:
        params = w.getparams()
        pcm = array.array("h", w.readframes(params.nframes))
    if sys.byteorder == "big":
        pcm.byteswap()
    return [v / 32768 for v in pcm], params


def wait_for(condition, timeout: float, step: float = 0.005):
    """Polls until `condition()` answers something true; returns it (or None at the timeout)."""
    end = time.monotonic() + timeout
    while True:
        got = condition()
        if got or time.monotonic() > end:
            return got or None
        time.sleep(step)


def _server_problem() -> str:
    server = os.environ.get("PULSE_SERVER")
    if not server:
        return "no test sound server (PULSE_SERVER unset; see scripts/pulse-server.sh)"
    if server.startswith("unix:"):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(5)
            try:
                s.connect(server[len("unix:"):])
            except OSError as e:
                return f"test sound server at {server} does not answer: {e}"
    return ""


class LiveTest(unittest.TestCase):
    """Tests against the private sound server the test command starts. They
    skip without one, unless WOODSHED_REQUIRE_SOUND_SERVER=1 says it must be
    there."""

    @classmethod
    def setUpClass(cls):
        problem = _server_problem()
        if problem:
            if os.environ.get("WOODSHED_REQUIRE_SOUND_SERVER") == "1":
                raise AssertionError(problem)
            raise unittest.SkipTest(problem)
        cls.tmp = tempfile.TemporaryDirectory(prefix="woodshed-py-")

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

