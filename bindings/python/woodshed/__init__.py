"""Woodshed for Python: the tuner, the metronome, the duplex recorder and the
take tools of the woodshed library, through ctypes.

The library is loaded from WOODSHED_LIBRARY when set (a full path), else
from next to this package, the prefix Python is installed in, or the
system's library path.
"""
# SPDX-License-Identifier: MIT
from ._version import __version__
from ._lib import (ABI_VERSION, ERRORS, AccessDenied, AlreadyCreated, BackendInitFailed, Device, DeviceBusy,
                   DeviceFailure, InvalidArgument, NoDevice, NotCreated, UnsupportedFormat, WoodshedError,
                   library_path)
from ._records import (ClickState, DeviceRecord, DeviceState, EngineState, Level, MetronomeConfig,
                       MetronomeSnapshot, MetronomeStatus, RampMode, ReadingState, RecorderState, TakeAnalysis,
                       TakeCleaning, TakeCleaningDetail, TakeCleaningStretch, TakeReportGrid, TakeReportNote, TakeReportSummary, TunerConfig,
                       TunerReading, TunerStatus)
from .metronome import Metronome, render_metronome
from .recorder import SAMPLE_RATE as RECORDER_SAMPLE_RATE
from .recorder import Backend, Recorder, output_latency_ms
from .takes import analyze_take, clean_take, report_take
from .tuner import Tuner, capabilities, track_offline, tune_offline

__all__ = [
    "__version__",
    "ABI_VERSION", "ERRORS", "AccessDenied", "AlreadyCreated", "BackendInitFailed", "Device", "DeviceBusy",
    "DeviceFailure", "InvalidArgument", "NoDevice", "NotCreated", "UnsupportedFormat", "WoodshedError",
    "library_path", "ClickState", "DeviceRecord", "DeviceState", "EngineState", "Level", "MetronomeConfig",
    "MetronomeSnapshot", "MetronomeStatus", "RampMode", "ReadingState", "RecorderState", "TakeAnalysis",
    "TakeCleaning", "TakeCleaningDetail", "TakeCleaningStretch", "TakeReportGrid", "TakeReportNote", "TakeReportSummary", "TunerConfig", "TunerReading", "TunerStatus", "Metronome", "render_metronome",
    "RECORDER_SAMPLE_RATE", "Backend", "Recorder", "output_latency_ms", "analyze_take", "clean_take", "report_take", "Tuner",
    "capabilities", "track_offline", "tune_offline",
]
