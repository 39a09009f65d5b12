# SPDX-License-Identifier: MIT
"""The duplex recorder: plays a backing track and records a take aligned with it."""
from __future__ import annotations

import ctypes
import enum
import os
from typing import Optional, Union

from ._lib import NotCreated, call, int32_arg, lib, path_arg, text_arg
from ._records import RecorderState

SAMPLE_RATE = 44100  # every take is recorded at this rate

PathLike = Union[str, bytes, os.PathLike]


class Backend(enum.IntEnum):
    """The audio back ends, numbered as sd_backend reports them."""

    WASAPI = 0
    DSOUND = 1
    WINMM = 2
    COREAUDIO = 3
    SNDIO = 4
    AUDIO4 = 5
    OSS = 6
    PULSEAUDIO = 7
    ALSA = 8
    JACK = 9
    AAUDIO = 10
    OPENSL = 11
    WEBAUDIO = 12
    CUSTOM = 13
    NULL = 14


class Recorder:
    """The duplex recorder (one per process). As a context manager it is
    created on entry and destroyed on exit, which finishes a running take.

        with Recorder() as r:
            r.start("backing.wav", "take.wav")
            ...                    # poll r.state() for progress and level
            length_ms = r.stop()
    """

    def create(self) -> "Recorder":
        call("sd_create")
        return self

    def destroy(self) -> None:
        call("sd_destroy")

    def __enter__(self) -> "Recorder":
        return self.create()

    def __exit__(self, *exc) -> None:
        try:
            if self.state().recording:
                self.stop()
        finally:
            self.destroy()

    def backend(self) -> Union[Backend, int]:
        b = lib.sd_backend()
        if b < 0:  # this call answers -1 rather than ws_not_created
            raise NotCreated(NotCreated.code, "sd_backend")
        try:
            return Backend(b)
        except ValueError:
            return b

    def find_input(self, name: str) -> Optional[str]:
        """The id of the capture device called exactly `name`, or None."""
        buf = ctypes.create_string_buffer(1040)  # ids of up to 519 bytes, hex spelt
        found = call("sd_find_input_by_name", text_arg(name), buf, len(buf))
        return buf.value.decode("ascii") if found == 1 else None

    def start(self, backing: Optional[PathLike], take: PathLike, input_id: Optional[str] = None,
              start_ms: int = 0) -> None:
        """Starts a take: plays `backing` (a 16-bit PCM WAV, or None for
        silence) from `start_ms` and records the input (an id from
        find_input; None: the default one) into the WAV file `take`."""
        call("sd_start", path_arg(backing), path_arg(take), text_arg(input_id),
             int32_arg("start_ms", start_ms))

    def stop(self) -> int:
        """Ends the take; returns its length in ms."""
        return call("sd_stop")

    def state(self) -> RecorderState:
        s = RecorderState()
        call("sd_get_state", ctypes.byref(s))
        return s

    @property
    def device_rate(self) -> int:
        """The duplex device's own rate in Hz (0 before the first take)."""
        return call("sd_device_rate")

    @property
    def repair_count(self) -> int:
        """How many times the last take's alignment was repaired."""
        return call("sd_repair_count")

    @property
    def recording(self) -> bool:
        return bool(self.state().recording)


def output_latency_ms() -> Optional[float]:
    """The output latency, or None while the library does not measure it."""
    v = lib.sd_output_latency_ms()
    return v if v >= 0 else None
