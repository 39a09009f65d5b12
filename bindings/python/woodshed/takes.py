# SPDX-License-Identifier: MIT
"""The take tools: where the backing lies in a take, and removing its leak."""
from __future__ import annotations

import ctypes
import os
from typing import Union

from ._lib import call, existing_file, int32_arg, int64_arg, path_arg
from ._records import TakeAnalysis, TakeCleaning

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
