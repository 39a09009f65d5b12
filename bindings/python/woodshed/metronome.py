# SPDX-License-Identifier: MIT
"""The metronome: the live click on a playback device, and offline rendering."""
from __future__ import annotations

import array
import ctypes
from typing import Optional, Union

from ._lib import Device, call, device_arg, int32_arg, int64_arg, list_devices, rate_arg
from ._records import UBPM, ClickState, MetronomeConfig, MetronomeSnapshot, MetronomeStatus


def render_metronome(config: MetronomeConfig, sample_rate: float, frames: int,
                     channels: int = 1) -> array.array:
    """The click track that starting the metronome with `config` would play,
    from its first frame: frames x channels floats, interleaved by frame."""
    frames = int64_arg("frames", frames)
    channels = int32_arg("channels", channels)
    # Nothing is written unless both are positive; then exactly this many.
    count = frames * channels if frames > 0 and channels > 0 else 0
    out = array.array("f", bytes(4 * max(count, 1)))
    buffer = (ctypes.c_float * len(out)).from_buffer(out)
    cfg = ctypes.byref(config) if config is not None else None
    call("mn_render_offline", cfg, rate_arg(sample_rate), frames, channels, buffer)
    del buffer  # releases the export so the array may be resized by the caller
    return out


class Metronome:
    """The live metronome (one per process). As a context manager it is
    created on entry and destroyed on exit, stopping the click first.

        with Metronome() as m:
            m.start(MetronomeConfig(bpm=96))
            snap = m.snapshot()    # None until the first audio block
    """

    def create(self) -> "Metronome":
        call("mn_create")
        return self

    def destroy(self) -> None:
        call("mn_destroy")

    def __enter__(self) -> "Metronome":
        return self.create()

    def __exit__(self, *exc) -> None:
        try:
            snap = self.snapshot()
            if snap is not None and snap.state != ClickState.STOPPED:
                self.stop()
        finally:
            self.destroy()

    def configure(self, config: MetronomeConfig) -> None:
        """Hands new settings to the click: at once when stopped, else from the next bar line."""
        call("mn_configure", ctypes.byref(config))

    def start(self, config: MetronomeConfig, device: Union[Device, str, None] = None) -> None:
        """Starts the click from its count-in, opening the device if needed.
        `device` None keeps the previous choice, "" is the default output."""
        call("mn_start", ctypes.byref(config) if config is not None else None, device_arg(device))

    def stop(self) -> None:
        call("mn_stop")

    def pause(self) -> None:
        call("mn_pause")

    def resume(self) -> None:
        call("mn_resume")

    def set_tempo(self, bpm: float) -> None:
        call("mn_set_tempo", int64_arg("tempo", round(bpm * UBPM)))

    def set_master_gain(self, gain: float) -> None:
        call("mn_set_master_gain", float(gain))

    def select_device(self, device: Union[Device, str, None]) -> None:
        """Reopens on `device` (None or "": the default output) now."""
        call("mn_select_device", device_arg(device))

    def devices(self) -> list[Device]:
        """The playback devices, listed afresh."""
        return list_devices("mn_refresh_devices", "mn_get_device")

    def status(self) -> MetronomeStatus:
        s = MetronomeStatus()
        call("mn_get_status", ctypes.byref(s))
        return s

    def snapshot(self) -> Optional[MetronomeSnapshot]:
        """The click's latest position, or None before the first audio block
        (or without a consistent copy: ask again)."""
        s = MetronomeSnapshot()
        return s if call("mn_get_snapshot", ctypes.byref(s)) == 1 else None
