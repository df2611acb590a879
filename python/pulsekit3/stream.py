"""Frames as fast as the radar takes them: radar.stream()."""

from __future__ import annotations

import asyncio
import contextlib
import ctypes
from collections import deque
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Literal, Optional

import numpy as np
import numpy.typing as npt

from . import errors
from ._library import StreamOptions, StreamStatistics, library

if TYPE_CHECKING:
    from .radar import Radar

Kind = Literal["double", "float", "raw"]  #: levels in percent, or counters
KINDS: dict[str, tuple[int, type[np.generic]]] = {"raw": (0, np.uint32), "float": (1, np.float32), "double": (2, np.float64)}

_BATCH = 16  # frames that one call takes at most
_INFO = np.dtype(
    [("number", "<u8"), ("time", "<f8"), ("arrived", "<u8"), ("settings", "<u4"), ("samplers", "<u4"), ("flags", "<u4"), ("", "<u4")]
)
_RETAKEN, _LATE = 1, 2
_SIGNAL_SECONDS = 0.5  # a signal just before the event loop begins to wait does not end that wait


def kind_of(kind: str) -> tuple[int, type[np.generic]]:
    if kind not in KINDS:
        raise ValueError(f"kind {kind!r} is none of {', '.join(KINDS)}")
    return KINDS[kind]


class Frame(np.ndarray[Any, np.dtype[Any]]):
    """A frame of a stream: an array of levels or counters that knows when it was taken."""

    number: int = 0  #: counts from 0; a gap is a loss
    time: float = 0.0  #: s from the start of the stream, by the bridge's clock
    settings: int = 0  #: how often settings had changed since the start
    retaken: bool = False  #: an earlier attempt at it was discarded
    late: bool = False  #: it began later than the rate asked for

    def __array_finalize__(self, origin: Optional[npt.NDArray[Any]], /) -> None:
        if isinstance(origin, Frame):
            self.__dict__.update(origin.__dict__)

    def __reduce__(self) -> tuple[Any, ...]:
        return _unpickled, (np.asarray(self), self.__dict__)


def _unpickled(values: npt.NDArray[Any], attributes: dict[str, Any]) -> Frame:
    frame = values.view(Frame)
    frame.__dict__.update(attributes)
    return frame


@dataclass(frozen=True)
class Statistics:
    """How a stream runs."""

    frames: int  #: handed out
    retaken: int
    lost: int
    late: int
    in_flight: int  #: frames that the bridge has been handed ahead
    frame_time: float  #: s from frame to frame, averaged over the last 32
    sweep_time: float  #: s


class Stream:
    """Frames, one after the other, in a for or an async for loop. It starts with the first one that is asked for, and ends with
    the loop, with close() or a with block.

    for frame in radar.stream(rate=100): ...
    """

    def __init__(self, radar: Radar, rate: float, kind: Kind, count: Optional[int], timeout: Optional[float]) -> None:
        self._running = self._ended = False
        number, dtype = kind_of(kind)
        if timeout is not None and not 0 <= timeout <= 2e6:
            raise ValueError(f"timeout {timeout!r} is no time in seconds")
        self._radar = radar
        self._left = count
        self._timeout_ms = -1 if timeout is None else round(timeout * 1000)
        self._ready: deque[Frame] = deque()
        self._infos = np.zeros(_BATCH, _INFO)
        self._count = ctypes.c_uint32()
        self._make_room(_BATCH * 256, dtype)
        self._options = StreamOptions(ctypes.sizeof(StreamOptions), number, float(rate), 0)

    # ---- One after the other ----

    def __iter__(self) -> Stream:
        return self

    def __next__(self) -> Frame:
        if not self._ready and not self._fill():
            raise StopIteration
        return self._ready.popleft()

    def __aiter__(self) -> Stream:
        return self

    async def __anext__(self) -> Frame:
        if not self._ready and not await self._fill_aside():
            raise StopAsyncIteration
        return self._ready.popleft()

    def read(self, count: int) -> npt.NDArray[Any]:
        """The next count frames as one array, a row each; fewer where the stream ends before. They must be of one length."""
        return np.array([frame for _, frame in zip(range(count), self)])

    # ---- Its end ----

    def close(self) -> None:
        """Frames that were not taken are gone. Closing twice is fine."""
        self._ended = True
        if self._running:
            self._running = False
            self._ready.clear()
            if self._radar.is_open:
                self._radar._call("QTX_StreamStop")

    def start(self) -> None:
        """Before the first frame is asked for: measures how long a sweep takes, and orders the first frames."""
        if not self._running and not self._ended:
            self._running = True  # ahead of the call: Ctrl-C may come right behind it
            try:
                self._radar._call("QTX_StreamStart", ctypes.byref(self._options))
            except errors.Error:
                self._running = False
                raise

    def __enter__(self) -> Stream:
        self.start()
        return self

    def __exit__(self, *_: object) -> None:
        with contextlib.suppress(errors.Error):  # it has ended all the same; the next call tells what is wrong
            self.close()

    def __del__(self) -> None:
        if getattr(self, "_running", False):
            self.__exit__()

    @property
    def statistics(self) -> Statistics:
        result = StreamStatistics(ctypes.sizeof(StreamStatistics))
        self._radar._call("QTX_StreamStatus", ctypes.byref(result))
        return Statistics(
            result.frames, result.retaken, result.lost, result.late, result.in_flight, result.frame_time, result.sweep_time
        )

    # ---- Reading ----

    def _fill(self) -> bool:
        """Waits for a frame and takes what is there; whether there is one."""
        with self._radar._lock:
            if self._left == 0:
                self.close()
            self.start()
            if not self._running:
                return False
            self._count.value = 0
            try:
                self._read(_BATCH if self._left is None else min(_BATCH, self._left))
            finally:  # a full disk under a frame log fails the call, yet the frames are there
                self._take()
            return True

    def _read(self, wanted: int) -> None:
        while True:
            try:
                self._radar._call(
                    "QTX_StreamRead",
                    *self._room,
                    wanted,
                    ctypes.byref(self._count),
                    self._timeout_ms,
                )
                return
            except errors.BufferTooSmall:
                self._make_room(2 * self._values.size, self._values.dtype)

    def _make_room(self, entries: int, dtype: npt.DTypeLike) -> None:
        self._values: npt.NDArray[Any] = np.empty(entries, dtype)
        self._room = self._values.ctypes.data, entries, self._infos.ctypes.data  # asking for an address takes a while

    def _take(self) -> None:
        start = 0
        for number, time, _, settings, samplers, flags, _ in self._infos[: self._count.value].tolist():
            frame = self._values[start : start + samplers].copy().view(Frame)
            frame.number, frame.time, frame.settings = number, time, settings
            if flags:
                frame.retaken, frame.late = bool(flags & _RETAKEN), bool(flags & _LATE)
            self._ready.append(frame)
            start += samplers
        if self._left is not None:
            self._left -= self._count.value

    async def _fill_aside(self) -> bool:
        """In a thread; when the task is cancelled, the wait ends at once."""
        reading = asyncio.get_running_loop().run_in_executor(None, self._fill)
        try:
            while not reading.done():
                await asyncio.wait([reading], timeout=_SIGNAL_SECONDS)
            return reading.result()
        except asyncio.CancelledError:
            while not reading.done():
                self._radar.cancel()
                await asyncio.wait([reading], timeout=0.02)
            reading.exception()
            raise


def frame_into(radar: Radar, kind: Kind, out: npt.NDArray[Any]) -> None:
    """A single capture."""
    if not out.flags.c_contiguous or not out.flags.writeable or out.dtype != kind_of(kind)[1]:
        raise ValueError(f"out must be a contiguous, writable array of {np.dtype(kind_of(kind)[1])}, not of {out.dtype}")
    if kind == "raw":
        radar._call("QTX_GetFrameRaw", out.ctypes.data, out.size)
    elif kind == "float":
        radar._call("QTX_GetFrameNormalizedFloat", out.ctypes.data, out.size, 0)
    else:
        radar._call("QTX_GetFrameNormalizedDouble", out.ctypes.data, out.size, 0)
