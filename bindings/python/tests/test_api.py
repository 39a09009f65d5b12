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


class Layouts(unittest.TestCase):
    def test_the_import_check_reports_a_drifted_record(self):
        class Shifted(ctypes.Structure):
            _fields_ = [("a", ctypes.c_int32), ("b", ctypes.c_double)]

        saved = dict(_records.LAYOUTS)
        try:
            _records.LAYOUTS[Shifted] = ({12}, [("a", 0), ("b", 4)])
            self.assertEqual(_records.layout_errors(), ["Shifted: 16 bytes, expected [12]",
                                                        "Shifted.b: offset 8, expected 4"])
        finally:
            _records.LAYOUTS.clear()
            _records.LAYOUTS.update(saved)
        self.assertEqual(_records.layout_errors(), [])


class WithoutAnInstance(unittest.TestCase):
    def test_engine_calls_raise_not_created(self):
        t, m, r = woodshed.Tuner(), woodshed.Metronome(), woodshed.Recorder()
        calls = {
            "tuner status": t.status, "tuner reading": t.reading, "tuner start": t.start,
            "tuner stop": t.stop, "tuner devices": t.devices, "tuner destroy": t.destroy,
            "tuner configure": lambda: t.configure(woodshed.TunerConfig()),
            "metronome start": lambda: m.start(woodshed.MetronomeConfig()), "metronome stop": m.stop,
            "metronome snapshot": m.snapshot, "metronome status": m.status, "metronome devices": m.devices,
            "metronome tempo": lambda: m.set_tempo(100), "metronome gain": lambda: m.set_master_gain(0.5),
            "metronome pause": m.pause, "metronome destroy": m.destroy,
            "recorder state": r.state, "recorder stop": r.stop, "recorder backend": r.backend,
            "recorder find input": lambda: r.find_input("x"), "recorder destroy": r.destroy,
            "recorder start": lambda: r.start(None, os.devnull),
        }
        for what, call in calls.items():
            with self.subTest(what), self.assertRaises(woodshed.NotCreated) as caught:
                call()
            self.assertEqual((caught.exception.code, caught.exception.name), (-2, "ws_not_created"))

    def test_answers_that_need_no_instance(self):
        self.assertEqual(woodshed.capabilities(), 31)
        self.assertIsNone(woodshed.output_latency_ms())


if __name__ == "__main__":
    unittest.main()
