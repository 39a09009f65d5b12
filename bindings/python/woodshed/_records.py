# SPDX-License-Identifier: MIT
"""The library's records as ctypes structures, and their enumerations.

The headers lock every record's size and field offsets; the same numbers are
listed here in LAYOUTS and checked when the module loads, so a binding that
has drifted from the library fails at import instead of reading garbage.
"""
from __future__ import annotations

import ctypes
import enum
from ctypes import c_char, c_double, c_int32, c_int64, c_uint8, c_uint32, c_uint64
from typing import Iterable, Optional


class _Record(ctypes.Structure):
    """Adds a readable repr and a dict view; reserved fields are left out of both."""

    def as_dict(self) -> dict:
        out = {}
        for name, _ in self._fields_:
            if name.startswith("reserved"):
                continue
            value = getattr(self, name)
            if isinstance(value, ctypes.Array):
                value = list(value)
            out[name] = value
        return out

    def __repr__(self) -> str:
        body = ", ".join(f"{k}={v!r}" for k, v in self.as_dict().items())
        return f"{type(self).__name__}({body})"


# ---- common ----

class DeviceRecord(_Record):
    _fields_ = [
        ("id_text", c_char * 264),
        ("name", c_char * 256),
        ("is_default", c_uint32),
        ("reserved", c_uint32),
    ]


# ---- tuner ----

class ReadingState(enum.IntEnum):
    SILENT = 0
    HOLDING = 1
    PITCHED = 2
    IN_TUNE = 3


class EngineState(enum.IntEnum):
    STOPPED = 0
    RUNNING = 1
    REOPENING = 2
    FAILED = 3


_NOTE_NAMES = ("C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B")


class TunerConfig(_Record):
    """Tuner settings. Unlike the all-zero C record (which fixes the target
    on MIDI note 0), TunerConfig() holds the library's defaults."""

    _fields_ = [
        ("a4_hz", c_double),
        ("lowest_hz", c_double),
        ("highest_hz", c_double),
        ("tolerance_cents", c_double),
        ("fixed_note", c_int32),
        ("slow_smoothing", c_int32),
    ]

    def __init__(self, a4_hz: float = 440.0, lowest_hz: float = 55.0, highest_hz: float = 1200.0,
                 tolerance_cents: float = 5.0, fixed_note: int = -1, slow_smoothing: bool = False):
        super().__init__(a4_hz, lowest_hz, highest_hz, tolerance_cents, fixed_note, int(slow_smoothing))


class TunerReading(_Record):
    _fields_ = [
        ("time_us", c_uint64),
        ("frame_count", c_uint64),
        ("frequency_hz", c_double),
        ("target_hz", c_double),
        ("cents", c_double),
        ("clarity", c_double),
        ("peak", c_double),
        ("level_db", c_double),
        ("strobe_phase", c_double),
        ("note", c_int32),
        ("octave", c_int32),
        ("state", c_uint32),
        ("clipped", c_uint32),
    ]

    @property
    def note_name(self) -> Optional[str]:
        """Scientific pitch name of the target note ("G3"), None without one."""
        if self.note < 0:
            return None
        return f"{_NOTE_NAMES[self.note % 12]}{self.octave}"

    @property
    def in_tune(self) -> bool:
        return self.state == ReadingState.IN_TUNE


class TunerStatus(_Record):
    _fields_ = [
        ("change_count", c_uint64),
        ("state", c_uint32),
        ("result", c_int32),
        ("backend_result", c_int32),
        ("sample_rate", c_uint32),
        ("device_channels", c_uint32),
        ("default_used", c_uint32),
    ]


# ---- metronome ----

class RampMode(enum.IntEnum):
    NONE = 0
    STEPWISE = 1
    LINEAR = 2


class Level(enum.IntEnum):
    SILENT = 0
    SOFT = 1
    NORMAL = 2
    MEDIUM = 3
    ACCENT = 4


class DeviceState(enum.IntEnum):
    NOT_OPENED = 0
    RUNNING = 1
    REOPENING = 2
    FAILED = 3


class ClickState(enum.IntEnum):
    STOPPED = 0
    COUNT_IN = 1
    RUNNING = 2
    PAUSED = 3


UBPM = 1_000_000  # tempos are millionths of a beat per minute


class MetronomeConfig(_Record):
    """Metronome settings. MetronomeConfig() is a plain 4/4 click at 120 BPM
    with the first beat accented (the all-zero C record is a silent 10 BPM).
    Keyword arguments set fields by name; `bpm` sets the tempo (and the ramp
    target unless one is given); `accent_pattern` takes the levels of the
    first beats, repeated over the 32 entries."""

    _fields_ = [
        ("tempo_ubpm", c_int64),
        ("beats_per_bar", c_int32),
        ("subdivisions", c_int32),
        ("beat_divisor", c_int32),
        ("beat_multiplier", c_int32),
        ("swing", c_double),
        ("master_gain", c_double),
        ("accent_gain", c_double),
        ("beat_gain", c_double),
        ("subdivision_gain", c_double),
        ("sound", c_int32),
        ("count_in_bars", c_int32),
        ("play_bars", c_int32),
        ("mute_bars", c_int32),
        ("drop_probability", c_double),
        ("random_seed", c_uint32),
        ("poly_pulses", c_int32),
        ("poly_sound", c_int32),
        ("reserved0", c_uint8 * 4),
        ("poly_gain", c_double),
        ("ramp_mode", c_int32),
        ("reserved1", c_uint8 * 4),
        ("ramp_target_ubpm", c_int64),
        ("ramp_step_ubpm", c_int64),
        ("ramp_interval_bars", c_int32),
        ("accent_pattern", c_uint8 * 32),
        ("reserved2", c_uint8 * 4),
    ]

    def __init__(self, bpm: Optional[float] = None, accent_pattern: Optional[Iterable[int]] = None,
                 **fields):
        super().__init__()
        self.bpm = 120.0 if bpm is None else bpm
        self.beats_per_bar = 4
        self.subdivisions = self.beat_divisor = self.beat_multiplier = 1
        self.swing = 0.5
        self.master_gain = 0.8
        self.accent_gain = 1.0
        self.beat_gain = 0.75
        self.subdivision_gain = 0.5
        self.poly_sound = 5
        self.poly_gain = 0.7
        self.ramp_interval_bars = 4
        for name, value in fields.items():
            if name not in self._field_names:
                raise TypeError(f"MetronomeConfig has no field {name!r}")
            setattr(self, name, value)
        if "ramp_target_ubpm" not in fields:
            self.ramp_target_ubpm = self.tempo_ubpm
        if accent_pattern is None:
            accent_pattern = [Level.ACCENT] + [Level.NORMAL] * (max(1, min(self.beats_per_bar, 32)) - 1)
        self.set_accents(accent_pattern)

    def set_accents(self, levels: Iterable[int]) -> None:
        """Levels of the first beats, repeated over the whole pattern."""
        levels = [int(v) for v in levels]
        if not levels or len(levels) > 32 or any(not 0 <= v <= 255 for v in levels):
            raise ValueError("accent levels: 1 to 32 values of 0..4")
        for i in range(32):
            self.accent_pattern[i] = levels[i % len(levels)]

    @property
    def bpm(self) -> float:
        return self.tempo_ubpm / UBPM

    @bpm.setter
    def bpm(self, value: float) -> None:
        self.tempo_ubpm = round(value * UBPM)


MetronomeConfig._field_names = frozenset(name for name, _ in MetronomeConfig._fields_)


class MetronomeStatus(_Record):
    _fields_ = [
        ("update_count", c_uint64),
        ("device_state", c_int32),
        ("last_result", c_int32),
        ("backend_result", c_int32),
        ("sample_rate", c_uint32),
        ("channels", c_uint32),
        ("used_default", c_uint32),
    ]


class MetronomeSnapshot(_Record):
    _fields_ = [
        ("publish_count", c_uint64),
        ("run_id", c_uint64),
        ("frame_clock", c_uint64),
        ("bar", c_int64),
        ("beat", c_int32),
        ("subdivision", c_int32),
        ("beat_phase", c_double),
        ("bar_phase", c_double),
        ("tempo_ubpm", c_int64),
        ("state", c_int32),
        ("bar_muted", c_int32),
        ("sample_rate", c_int32),
        ("reserved", c_int32),
    ]

    @property
    def bpm(self) -> float:
        return self.tempo_ubpm / UBPM


# ---- recorder ----

class RecorderState(_Record):
    # The library writes 36 bytes; the C compiler's padding to 40 (where
    # int64_t is 8-byte aligned) is reproduced by ctypes and never touched.
    _fields_ = [
        ("play_position", c_int64),
        ("captured_frames", c_int64),
        ("sample_rate", c_uint32),
        ("playback_done", c_uint32),
        ("input_peak", c_double),
        ("recording", c_uint32),
    ]


# ---- take tools ----

class TakeAnalysis(_Record):
    _fields_ = [
        ("score", c_double),
        ("reserved", c_uint64),
        ("delay_frames", c_int64),
        ("sample_rate", c_uint32),
        ("valid", c_uint32),
    ]


class TakeCleaning(_Record):
    _fields_ = [
        ("reserved", c_uint64),
        ("reduction_db", c_double),
        ("delay_frames", c_int64),
        ("sample_rate", c_uint32),
        ("cleaned", c_uint32),
    ]


class TakeCleaningDetail(_Record):
    _fields_ = [
        ("room_seconds", c_double),
        ("rt60_seconds", c_double),
        ("drift_ppm", c_double),
        ("stretches", c_int32),
        ("reserved", c_int32),
    ]


class TakeCleaningStretch(_Record):
    _fields_ = [
        ("start_frame", c_int64),
        ("end_frame", c_int64),
        ("delay_frames", c_int64),
        ("cleaned", c_int32),
        ("reserved", c_int32),
    ]


class TakeReportGrid(_Record):
    _fields_ = [
        ("tempo_ubpm", c_int64),
        ("first_beat_frame", c_int64),
        ("beats_per_bar", c_int32),
        ("subdivision", c_int32),
    ]


class TakeReportNote(_Record):
    _fields_ = [
        ("onset_frame", c_int64),
        ("duration_frames", c_int64),
        ("grid_frame", c_int64),
        ("deviation_ms", c_double),
        ("frequency_hz", c_double),
        ("cents", c_double),
        ("cents_spread", c_double),
        ("note", c_int32),
        ("bar", c_int32),
        ("beat", c_int32),
        ("step", c_int32),
        ("name", c_char * 8),
    ]


class TakeReportSummary(_Record):
    _fields_ = [
        ("mean_abs_deviation_ms", c_double),
        ("share_within_20ms", c_double),
        ("mean_abs_cents", c_double),
        ("share_within_10_cents", c_double),
        ("frames", c_int64),
        ("sample_rate", c_uint32),
        ("notes", c_int32),
    ]


# The headers' numbers: the accepted sizes, then every field with its offset.
LAYOUTS = {
    DeviceRecord: ({528}, [("id_text", 0), ("name", 264), ("is_default", 520), ("reserved", 524)]),
    TunerConfig: ({40}, [("a4_hz", 0), ("lowest_hz", 8), ("highest_hz", 16), ("tolerance_cents", 24),
                         ("fixed_note", 32), ("slow_smoothing", 36)]),
    TunerReading: ({88}, [("time_us", 0), ("frame_count", 8), ("frequency_hz", 16), ("target_hz", 24),
                          ("cents", 32), ("clarity", 40), ("peak", 48), ("level_db", 56),
                          ("strobe_phase", 64), ("note", 72), ("octave", 76), ("state", 80),
                          ("clipped", 84)]),
    TunerStatus: ({32}, [("change_count", 0), ("state", 8), ("result", 12), ("backend_result", 16),
                         ("sample_rate", 20), ("device_channels", 24), ("default_used", 28)]),
    MetronomeConfig: ({176}, [
        ("tempo_ubpm", 0), ("beats_per_bar", 8), ("subdivisions", 12), ("beat_divisor", 16),
        ("beat_multiplier", 20), ("swing", 24), ("master_gain", 32), ("accent_gain", 40),
        ("beat_gain", 48), ("subdivision_gain", 56), ("sound", 64), ("count_in_bars", 68),
        ("play_bars", 72), ("mute_bars", 76), ("drop_probability", 80), ("random_seed", 88),
        ("poly_pulses", 92), ("poly_sound", 96), ("reserved0", 100), ("poly_gain", 104),
        ("ramp_mode", 112), ("reserved1", 116), ("ramp_target_ubpm", 120), ("ramp_step_ubpm", 128),
        ("ramp_interval_bars", 136), ("accent_pattern", 140), ("reserved2", 172)]),
    MetronomeStatus: ({32}, [("update_count", 0), ("device_state", 8), ("last_result", 12),
                             ("backend_result", 16), ("sample_rate", 20), ("channels", 24),
                             ("used_default", 28)]),
    MetronomeSnapshot: ({80}, [("publish_count", 0), ("run_id", 8), ("frame_clock", 16), ("bar", 24),
                               ("beat", 32), ("subdivision", 36), ("beat_phase", 40), ("bar_phase", 48),
                               ("tempo_ubpm", 56), ("state", 64), ("bar_muted", 68),
                               ("sample_rate", 72), ("reserved", 76)]),
    # 36 bytes written; 40 where the platform pads after the last field.
    RecorderState: ({36, 40}, [("play_position", 0), ("captured_frames", 8), ("sample_rate", 16),
                               ("playback_done", 20), ("input_peak", 24), ("recording", 32)]),
    TakeAnalysis: ({32}, [("score", 0), ("reserved", 8), ("delay_frames", 16), ("sample_rate", 24),
                          ("valid", 28)]),
    TakeCleaning: ({32}, [("reserved", 0), ("reduction_db", 8), ("delay_frames", 16), ("sample_rate", 24),
                          ("cleaned", 28)]),
    TakeCleaningDetail: ({32}, [("room_seconds", 0), ("rt60_seconds", 8), ("drift_ppm", 16),
                                ("stretches", 24), ("reserved", 28)]),
    TakeCleaningStretch: ({32}, [("start_frame", 0), ("end_frame", 8), ("delay_frames", 16),
                                 ("cleaned", 24), ("reserved", 28)]),
    TakeReportGrid: ({24}, [("tempo_ubpm", 0), ("first_beat_frame", 8), ("beats_per_bar", 16),
                            ("subdivision", 20)]),
    TakeReportNote: ({80}, [("onset_frame", 0), ("duration_frames", 8), ("grid_frame", 16),
                            ("deviation_ms", 24), ("frequency_hz", 32), ("cents", 40), ("cents_spread", 48),
                            ("note", 56), ("bar", 60), ("beat", 64), ("step", 68), ("name", 72)]),
    TakeReportSummary: ({48}, [("mean_abs_deviation_ms", 0), ("share_within_20ms", 8), ("mean_abs_cents", 16),
                               ("share_within_10_cents", 24), ("frames", 32), ("sample_rate", 40),
                               ("notes", 44)]),
}


def layout_errors() -> list[str]:
    """Every difference between the ctypes records and LAYOUTS."""
    errors = []
    for record, (sizes, fields) in LAYOUTS.items():
        name = record.__name__
        if ctypes.sizeof(record) not in sizes:
            errors.append(f"{name}: {ctypes.sizeof(record)} bytes, expected {sorted(sizes)}")
        declared = [f for f, _ in record._fields_]
        if declared != [f for f, _ in fields]:
            errors.append(f"{name}: fields {declared}, expected {[f for f, _ in fields]}")
            continue
        for field, offset in fields:
            actual = getattr(record, field).offset
            if actual != offset:
                errors.append(f"{name}.{field}: offset {actual}, expected {offset}")
    return errors


_errors = layout_errors()
if _errors:
    raise ImportError("woodshed records do not match the library's layout: " + "; ".join(_errors))
