# SPDX-License-Identifier: MIT
"""The take tools: where the backing lies in a take, and removing its leak."""
from __future__ import annotations

import ctypes
import os
from typing import Union

from typing import List, Optional, Tuple

from ._lib import call, existing_file, int32_arg, int64_arg, path_arg
from ._records import TakeAnalysis, TakeCleaning, TakeReportGrid, TakeReportNote, TakeReportSummary, TunerConfig

PathLike = Union[str, bytes, os.PathLike]


def analyze_take(reference: PathLike, take: PathLike, reference_offset_ms: int = 0,
                 min_delay_ms: int = 0, max_delay_ms: int = 500) -> TakeAnalysis:
    """Finds the delay at which `reference` (the backing, from
    reference_offset_ms on) is heard in `take`, searching min..max ms. The
    result's `valid` is 0 when no clear delay lies in that range.
    FileNotFoundError for a path that names no file."""
    out = TakeAnalysis()
    call("ta_analyze", existing_file(path_arg(reference)), existing_file(path_arg(take)), int32_arg("reference_offset_ms", reference_offset_ms),
         int32_arg("min_delay_ms", min_delay_ms), int32_arg("max_delay_ms", max_delay_ms), ctypes.byref(out))
    return out


def clean_take(reference: PathLike, take: PathLike, reference_offset_ms: int, delay_frames: int) -> TakeCleaning:
    """Removes the reference that leaked into `take` at `delay_frames` (what
    analyze_take found) and rewrites the take file in place.
    FileNotFoundError for a path that names no file."""
    out = TakeCleaning()
    call("ta_clean", existing_file(path_arg(reference)), existing_file(path_arg(take)), int32_arg("reference_offset_ms", reference_offset_ms),
         int64_arg("delay_frames", delay_frames), ctypes.byref(out))
    return out


def report_take(take: PathLike, bpm: float, beats_per_bar: int = 4, first_beat_frame: int = 0,
                subdivision: int = 1, tuner: Optional[TunerConfig] = None
                ) -> Tuple[List[TakeReportNote], TakeReportSummary]:
    """The notes played in `take` against a grid of `bpm` from frame
    `first_beat_frame` on, and the take's summary figures."""
    grid = TakeReportGrid(int(round(bpm * 1e6)), int64_arg("first_beat_frame", first_beat_frame),
                          int32_arg("beats_per_bar", beats_per_bar), int32_arg("subdivision", subdivision))
    cfg = ctypes.byref(tuner) if tuner is not None else None
    summary = TakeReportSummary()
    count = ctypes.c_int32(0)
    call("ta_report", existing_file(path_arg(take)), cfg, ctypes.byref(grid), None, ctypes.byref(count), ctypes.byref(summary))
    notes = (TakeReportNote * max(summary.notes, 1))()
    count.value = summary.notes
    if summary.notes > 0:
        call("ta_report", path_arg(take), cfg, ctypes.byref(grid), notes, ctypes.byref(count),
             ctypes.byref(summary))
    return list(notes[:count.value]), summary
