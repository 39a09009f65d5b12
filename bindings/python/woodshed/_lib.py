# SPDX-License-Identifier: MIT
"""Loads the woodshed library, declares every export's prototype and turns
negative result codes into exceptions."""
from __future__ import annotations

import array
import ctypes
import ctypes.util
import errno
import os
import sys
from ctypes import POINTER, c_char_p, c_double, c_float, c_int32, c_int64
from dataclasses import dataclass
from typing import Optional, Union

from ._records import (DeviceRecord, MetronomeConfig, MetronomeSnapshot, MetronomeStatus, RecorderState,
                       TakeAnalysis, TakeCleaning, TakeCleaningDetail, TakeCleaningStretch, TakeReportGrid, TakeReportNote, TakeReportSummary,
                       TunerConfig, TunerReading, TunerStatus)

ABI_VERSION = 1  # the interface these declarations describe

_NAMES = ("woodshed.dll",) if sys.platform == "win32" else ("libwoodshed.so.0", "libwoodshed.so")


def _candidates() -> list[str]:
    # Beside the package, then the prefix Python is installed in (where
    # 'cmake --install' and pip put things into one tree), then the system's.
    here = os.path.dirname(os.path.abspath(__file__))
    prefix = [os.path.join(sys.prefix, d) for d in ("lib", "lib64", "bin")]
    found = [os.path.join(d, n) for d in (here, os.path.dirname(here), *prefix) for n in _NAMES]
    return [p for p in found if os.path.isfile(p)] + list(_NAMES)


def _load() -> tuple[ctypes.CDLL, str]:
    wanted = os.environ.get("WOODSHED_LIBRARY")
    if wanted:
        try:
            return ctypes.CDLL(wanted), wanted
        except OSError as e:
            raise ImportError(f"WOODSHED_LIBRARY={wanted}: {e}") from e
    tried = []
    for name in _candidates():
        try:
            return ctypes.CDLL(name), name
        except OSError as e:
            tried.append(f"{name}: {e}")
    found = ctypes.util.find_library("woodshed")
    if found:
        try:
            return ctypes.CDLL(found), found
        except OSError as e:
            tried.append(f"{found}: {e}")
    raise ImportError("woodshed library not found; set WOODSHED_LIBRARY to its path. Tried:\n  "
                      + "\n  ".join(tried))


lib, library_path = _load()

_P = POINTER
# name: (result type, argument types)
_PROTOTYPES = {
    "tn_abi_version": (c_int32, []),
    "tn_capabilities": (c_int32, []),
    "tn_engine_create": (c_int32, [_P(TunerConfig)]),
    "tn_engine_destroy": (c_int32, []),
    "tn_engine_configure": (c_int32, [_P(TunerConfig)]),
    "tn_engine_start": (c_int32, [c_char_p]),
    "tn_engine_stop": (c_int32, []),
    "tn_engine_get_status": (c_int32, [_P(TunerStatus)]),
    "tn_engine_get_reading": (c_int32, [_P(TunerReading)]),
    "tn_engine_get_device": (c_int32, [c_int32, _P(DeviceRecord)]),
    "tn_engine_refresh_devices": (c_int32, []),
    "tn_offline_process": (c_int32, [_P(TunerConfig), _P(c_float), c_int32, c_int32, c_double,
                                     _P(TunerReading)]),
    "tn_offline_track": (c_int32, [_P(TunerConfig), _P(c_float), c_int32, c_int32, c_double,
                                   _P(TunerReading), _P(c_int32)]),
    "mn_abi_version": (c_int32, []),
    "mn_create": (c_int32, []),
    "mn_destroy": (c_int32, []),
    "mn_configure": (c_int32, [_P(MetronomeConfig)]),
    "mn_start": (c_int32, [_P(MetronomeConfig), c_char_p]),
    "mn_stop": (c_int32, []),
    "mn_pause": (c_int32, []),
    "mn_resume": (c_int32, []),
    "mn_set_tempo": (c_int32, [c_int64]),
    "mn_set_master_gain": (c_int32, [c_double]),
    "mn_select_device": (c_int32, [c_char_p]),
    "mn_refresh_devices": (c_int32, []),
    "mn_get_device": (c_int32, [c_int32, _P(DeviceRecord)]),
    "mn_get_status": (c_int32, [_P(MetronomeStatus)]),
    "mn_get_snapshot": (c_int32, [_P(MetronomeSnapshot)]),
    "mn_render_offline": (c_int64, [_P(MetronomeConfig), c_double, c_int64, c_int32, _P(c_float)]),
    "sd_abi_version": (c_int32, []),
    "sd_create": (c_int32, []),
    "sd_destroy": (c_int32, []),
    "sd_backend": (c_int32, []),
    "sd_find_input_by_name": (c_int32, [c_char_p, c_char_p, c_int32]),
    "sd_start": (c_int32, [c_char_p, c_char_p, c_char_p, c_int32]),
    "sd_stop": (c_int64, []),
    "sd_get_state": (c_int32, [_P(RecorderState)]),
    "sd_device_rate": (c_int32, []),
    "sd_repair_count": (c_int32, []),
    "sd_output_latency_ms": (c_double, []),
    "ta_abi_version": (c_int32, []),
    "ta_analyze": (c_int32, [c_char_p, c_char_p, c_int32, c_int32, c_int32, _P(TakeAnalysis)]),
    "ta_clean": (c_int32, [c_char_p, c_char_p, c_int32, c_int64, _P(TakeCleaning)]),
    "ta_clean_detailed": (c_int32, [c_char_p, c_char_p, c_int32, c_int64, _P(TakeCleaning),
                                    _P(TakeCleaningDetail), _P(TakeCleaningStretch), c_int32]),
    "ta_report": (c_int32, [c_char_p, _P(TunerConfig), _P(TakeReportGrid), _P(TakeReportNote), _P(c_int32),
                            _P(TakeReportSummary)]),
    "ta_report_buffer": (c_int32, [_P(c_float), c_int64, c_int32, _P(TunerConfig), _P(TakeReportGrid),
                                   _P(TakeReportNote), _P(c_int32), _P(TakeReportSummary)]),
}


def _declare() -> None:
    missing = []
    for name, (restype, argtypes) in _PROTOTYPES.items():
        try:
            fn = getattr(lib, name)
        except AttributeError:
            missing.append(name)
            continue
        fn.restype = restype
        fn.argtypes = argtypes
    if missing:
        raise ImportError(f"{library_path} lacks exports: {', '.join(missing)}")
    versions = {f: getattr(lib, f)() for f in ("tn_abi_version", "mn_abi_version", "sd_abi_version",
                                               "ta_abi_version")}
    if any(v != ABI_VERSION for v in versions.values()):
        raise ImportError(f"{library_path}: interface versions {versions}, this binding needs {ABI_VERSION}")


_declare()


# ---- result codes ----

class WoodshedError(Exception):
    """A negative ws_result. `code` is the number, `name` its name in common.h."""

    code: int = 0
    name: str = ""

    def __init__(self, code: int, call: str = ""):
        self.code = code
        self.name = _CODE_NAMES.get(code, f"ws_result({code})")
        self.call = call
        super().__init__(f"{call}: {self.name} ({code})" if call else f"{self.name} ({code})")


class AlreadyCreated(WoodshedError):
    """A create call while the family's instance exists (it is untouched)."""
    code, name = -1, "ws_already_created"


class NotCreated(WoodshedError):
    """The call needs the family's instance and there is none."""
    code, name = -2, "ws_not_created"


class InvalidArgument(WoodshedError, ValueError):
    """A required pointer was missing or an argument out of range."""
    code, name = -3, "ws_invalid_argument"


class BackendInitFailed(WoodshedError):
    """No audio back end could be initialised."""
    code, name = -10, "ws_backend_init_failed"


class NoDevice(WoodshedError):
    """The device does not exist or its type is unsupported."""
    code, name = -11, "ws_no_device"


class DeviceBusy(WoodshedError):
    """The device is busy, unavailable, not initialised or not started."""
    code, name = -12, "ws_device_busy"


class AccessDenied(WoodshedError):
    """The operating system refused access to the device."""
    code, name = -13, "ws_access_denied"


class UnsupportedFormat(WoodshedError):
    """Invalid data or an unsupported format (also: not a WAV file)."""
    code, name = -14, "ws_unsupported_format"


class DeviceFailure(WoodshedError):
    """Any other failure reported by the audio back end."""
    code, name = -15, "ws_device_failure"


ERRORS = {cls.code: cls for cls in (AlreadyCreated, NotCreated, InvalidArgument, BackendInitFailed, NoDevice,
                                    DeviceBusy, AccessDenied, UnsupportedFormat, DeviceFailure)}
for _cls in (WoodshedError, *ERRORS.values()):
    _cls.__module__ = "woodshed"  # as the package exports them
_CODE_NAMES = {code: cls.name for code, cls in ERRORS.items()}


def check(code: int, call: str) -> int:
    """Returns a non-negative answer unchanged; raises the error of a negative one."""
    if code < 0:
        raise ERRORS.get(code, WoodshedError)(code, call)
    return code


def call(name: str, *args) -> int:
    return check(getattr(lib, name)(*args), name)


# ---- argument conversion ----

def text_arg(value: Union[str, bytes, None]) -> Optional[bytes]:
    """A device id or name as NUL-terminated UTF-8 (None stays NULL)."""
    if value is None:
        return None
    data = value if isinstance(value, bytes) else str(value).encode("utf-8")
    if b"\0" in data:
        raise ValueError("text with an embedded NUL")
    return data


def existing_file(path: bytes) -> bytes:
    """`path` (from path_arg) when it names a file; FileNotFoundError or
    IsADirectoryError otherwise, as Python's own file calls raise."""
    name = os.fsdecode(path)
    if os.path.isdir(path):
        raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), name)
    if not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), name)
    return path


def rate_arg(rate: float) -> float:
    """A sample rate the library can work at: 1000..768000 Hz, else ValueError."""
    rate = float(rate)
    if not (1000.0 <= rate <= 768000.0):
        raise ValueError(f"sample rate {rate} Hz outside 1000..768000")
    return rate


def path_arg(path: Union[str, bytes, os.PathLike, None]) -> Optional[bytes]:
    """A file path as the library takes it: UTF-8 bytes."""
    if path is None:
        return None
    path = os.fspath(path)
    # surrogateescape gives back the bytes of a POSIX name that is not UTF-8
    data = path if isinstance(path, bytes) else path.encode("utf-8", "surrogateescape")
    if b"\0" in data:
        raise ValueError("path with an embedded NUL")
    return data


def int32_arg(name: str, value: int) -> int:
    value = int(value)
    if not -2**31 <= value < 2**31:
        raise OverflowError(f"{name}={value} does not fit a 32-bit integer")
    return value


def int64_arg(name: str, value: int) -> int:
    value = int(value)
    if not -2**63 <= value < 2**63:
        raise OverflowError(f"{name}={value} does not fit a 64-bit integer")
    return value


_NATIVE_FLOAT = {"f", "@f", "=f", "<f" if sys.byteorder == "little" else ">f"}


def _flat(values):
    for v in values:
        if isinstance(v, list):
            yield from _flat(v)
        else:
            yield v


def float_samples(samples) -> tuple[ctypes.Array, int]:
    """32-bit floats the library can read, and their count. A contiguous
    native float32 buffer (array('f'), a memoryview of one, a numpy float32
    array) is passed without copying; anything else is converted."""
    try:
        view = memoryview(samples)
    except TypeError:
        view = None
    if view is not None and view.format in _NATIVE_FLOAT and view.c_contiguous:
        count = view.nbytes // 4
        flat = view.cast("B")
        if view.readonly:
            return (c_float * count).from_buffer_copy(flat), count
        return (c_float * count).from_buffer(flat), count
    if view is not None and view.format in ("B", "b", "c"):
        # Most likely encoded samples read from a file or a pipe: guessing
        # their format would be wrong as often as right.
        raise TypeError("samples as raw bytes: pass memoryview(data).cast('f') for float32 data")
    data = array.array("f", _flat(view.tolist()) if view is not None else samples)
    return (c_float * len(data)).from_buffer(data), len(data)


# ---- devices ----

@dataclass(frozen=True)
class Device:
    """An audio device as a live family lists it; pass it (or its id) back to choose it."""

    id: str
    name: str
    is_default: bool

    @classmethod
    def from_record(cls, r: DeviceRecord) -> "Device":
        return cls(r.id_text.decode("ascii", "replace"), r.name.decode("utf-8", "replace"), bool(r.is_default))


def device_arg(device: Union[Device, str, None]) -> Optional[bytes]:
    return text_arg(device.id if isinstance(device, Device) else device)


def list_devices(refresh: str, get: str) -> list[Device]:
    """Refreshes a family's device list and copies every entry."""
    out = []
    record = DeviceRecord()
    for i in range(call(refresh)):
        if call(get, i, ctypes.byref(record)) == 1:
            out.append(Device.from_record(record))
    return out
