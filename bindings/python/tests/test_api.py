# SPDX-License-Identifier: MIT
"""The binding against the C headers and the loaded library: record layouts,
result code names, the exported calls, and calls that need an instance."""
import ctypes
import os
import pathlib
import re
import unittest

import woodshed
from woodshed import _lib, _records

INCLUDE = pathlib.Path(__file__).resolve().parents[3] / "include" / "woodshed"


def header_text() -> str:
    return "".join(h.read_text() for h in sorted(INCLUDE.glob("*.h")))


@unittest.skipUnless(INCLUDE.is_dir(), "the C headers are not beside the binding")
class AgainstTheHeaders(unittest.TestCase):
    def test_every_locked_offset_and_size_matches_the_ctypes_record(self):
        text = header_text()
        offsets = re.findall(r"offsetof\((\w+), (\w+)\) == (\d+)", text)
        sizes = re.findall(r"sizeof\((\w+)\) == (\d+)", text)
        self.assertGreater(len(offsets), 80)
        for record, field, offset in offsets:
            with self.subTest(f"{record}.{field}"):
                self.assertEqual(getattr(getattr(woodshed, record), field).offset, int(offset))
        for record, size in sizes:
            with self.subTest(record):
                # RecorderState: 40 bytes where int64_t is 8-byte aligned, else 36
                expected = {36, 40} if record == "RecorderState" else {int(size)}
                self.assertIn(ctypes.sizeof(getattr(woodshed, record)), expected)
        # Every record the headers lock is bound, and no field is left out.
        locked = {r for r, _, _ in offsets}
        self.assertEqual(locked, {r.__name__ for r in _records.LAYOUTS})
        for record in _records.LAYOUTS:
            self.assertEqual({f for r, f, _ in offsets if r == record.__name__}, {f for f, _ in record._fields_})

    def test_result_codes_carry_the_names_of_common_h(self):
        codes = {int(v): n for n, v in re.findall(r"(ws_\w+) = (-\d+)", header_text())}
        self.assertEqual(codes, {code: cls.name for code, cls in woodshed.ERRORS.items()})
        for code, cls in woodshed.ERRORS.items():
            e = _lib.ERRORS[code](code, "call")
            self.assertIsInstance(e, woodshed.WoodshedError)
            self.assertEqual((e.code, e.name), (code, codes[code]))
        self.assertEqual(woodshed.WoodshedError(-7).name, "ws_result(-7)")

    def test_every_declared_export_has_a_prototype(self):
        declared = set(re.findall(r"WS_API\s+[^;(]*?\b([a-z]{2}_[a-z0-9_]+)\s*\(", header_text()))
        self.assertEqual(declared, set(_lib._PROTOTYPES))


class WithoutAnInstance(unittest.TestCase):
    def test_engine_calls_raise_not_created(self):
        t, m, r = woodshed.Tuner(), woodshed.Metronome(), woodshed.Recorder()
        calls = {"tuner": t.status, "metronome": lambda: m.start(woodshed.MetronomeConfig()), "recorder": r.stop}
        for what, call in calls.items():
            with self.subTest(what), self.assertRaises(woodshed.NotCreated) as caught:
                call()
            self.assertEqual((caught.exception.code, caught.exception.name), (-2, "ws_not_created"))

    def test_answers_that_need_no_instance(self):
        self.assertEqual(woodshed.capabilities(), 31)
        self.assertIsNone(woodshed.output_latency_ms())

    def test_python_errors_for_python_mistakes(self):
        for rate in (0, -48000, float("nan"), float("inf"), 1e9):
            with self.subTest(rate=rate), self.assertRaises(ValueError):
                woodshed.tune_offline([0.0] * 4096, rate)
        with self.assertRaises(ValueError):
            woodshed.render_metronome(woodshed.MetronomeConfig(), 0, 64)
        with self.assertRaises(FileNotFoundError):
            woodshed.analyze_take("no-such-backing.wav", os.devnull)
        with self.assertRaises(IsADirectoryError):
            woodshed.clean_take(os.devnull, os.path.dirname(__file__), 0, 0)


@unittest.skipUnless(INCLUDE.is_dir(), "the sources are not beside the binding")
class Packaging(unittest.TestCase):
    def test_version_is_the_projects(self):
        cmake = (INCLUDE.parents[1] / "CMakeLists.txt").read_text()
        self.assertEqual(woodshed.__version__, re.search(r"VERSION (\d+\.\d+\.\d+)", cmake).group(1))


if __name__ == "__main__":
    unittest.main()
