# SPDX-License-Identifier: MIT
"""The tuner: offline analysis of samples the host holds, and the live engine."""
from __future__ import annotations

import ctypes
from typing import Optional, Union

from ._lib import Device, call, device_arg, float_samples, int32_arg, lib, list_devices, rate_arg
from ._records import EngineState, TunerConfig, TunerReading, TunerStatus


def tune_offline(samples, sample_rate: float, config: Optional[TunerConfig] = None,
                 channels: int = 1) -> Optional[TunerReading]:
    """The reading the live tuner would show after hearing `samples` (floats,
    interleaved by frame when `channels` > 1): None when they are shorter
    than one analysis window. ValueError for a rate outside 1000..768000 Hz."""
    sample_rate = rate_arg(sample_rate)
    buffer, count = float_samples(samples)
    channels = int32_arg("channels", channels)
    frames = int32_arg("frames", count // channels if channels > 0 else 0)
    reading = TunerReading()
    cfg = ctypes.byref(config) if config is not None else None
    got = call("tn_offline_process", cfg, buffer, frames, channels, sample_rate, ctypes.byref(reading))
    return reading if got == 1 else None


def track_offline(samples, sample_rate: float, config: Optional[TunerConfig] = None,
                  channels: int = 1, as_numpy: Optional[bool] = None):
    """Every analysis frame's reading over `samples` (the pitch track): a list
    of TunerReading, or a numpy structured array when numpy is installed
    (as_numpy=None) or asked for. Empty when the samples are shorter than one
    analysis window. Its last entry is what tune_offline returns."""
    buffer, count = float_samples(samples)
    channels = int32_arg("channels", channels)
    frames = int32_arg("frames", count // channels if channels > 0 else 0)
    cfg = ctypes.byref(config) if config is not None else None
    n = ctypes.c_int32(0)
    call("tn_offline_track", cfg, buffer, frames, channels, float(sample_rate), None, ctypes.byref(n))
    track = (TunerReading * max(n.value, 1))()
    if n.value > 0:
        call("tn_offline_track", cfg, buffer, frames, channels, float(sample_rate), track,
             ctypes.byref(n))
    if as_numpy is not False:
        try:
            import numpy
            return numpy.ctypeslib.as_array(track)[:n.value]
        except ImportError:
            if as_numpy:
                raise
    return list(track[:n.value])


class Tuner:
    """The live tuner engine (one per process). As a context manager it is
    created on entry and destroyed on exit, stopping a running device first.

        with Tuner() as t:
            t.start()              # the default input
            r = t.reading()        # None until the first analysis frame
    """

    def __init__(self, config: Optional[TunerConfig] = None):
        self._config = config

    def create(self) -> "Tuner":
        call("tn_engine_create", ctypes.byref(self._config) if self._config is not None else None)
        return self

    def destroy(self) -> None:
        call("tn_engine_destroy")

    def __enter__(self) -> "Tuner":
        return self.create()

    def __exit__(self, *exc) -> None:
        try:
            if self.status().state != EngineState.STOPPED:
                self.stop()
        finally:
            self.destroy()

    def configure(self, config: TunerConfig) -> None:
        call("tn_engine_configure", ctypes.byref(config))
        self._config = config

    def devices(self) -> list[Device]:
        """The capture devices, listed afresh."""
        return list_devices("tn_engine_refresh_devices", "tn_engine_get_device")

    def start(self, device: Union[Device, str, None] = None) -> None:
        """Opens and starts a capture device (None: the default input)."""
        call("tn_engine_start", device_arg(device))

    def stop(self) -> None:
        call("tn_engine_stop")

    def status(self) -> TunerStatus:
        s = TunerStatus()
        call("tn_engine_get_status", ctypes.byref(s))
        return s

    @property
    def running(self) -> bool:
        return self.status().state == EngineState.RUNNING

    def reading(self) -> Optional[TunerReading]:
        """The latest reading, or None while there is none (or no consistent copy: ask again)."""
        r = TunerReading()
        return r if call("tn_engine_get_reading", ctypes.byref(r)) == 1 else None


def capabilities() -> int:
    return int(lib.tn_capabilities())

