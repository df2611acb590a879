"""Radars: finding and opening them, and all that can be done with one."""

from __future__ import annotations

import ctypes
import os
import threading
import weakref
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from typing import Any, NamedTuple, Optional

import numpy as np
import numpy.typing as npt

from . import _interrupt, errors, stream
from ._library import Geometry as _Geometry
from ._library import decoded, encoded, library, path_bytes, read_text
from .plotting import plot, waterfall
from .settings import Actions, Meaning, Settings, meaning_of

_UNKNOWN = "Unknown"
_HELD = "Already Open"
_ONE_BLOCK = 4096
_RESULTS = 579

_radars: weakref.WeakSet[Radar] = weakref.WeakSet()


@dataclass(frozen=True)
class Attached:
    """An entry of the list of attached radars."""

    connection: str  #: what open() takes
    bridge: str
    serial: str
    board: str
    chip: str

    @classmethod
    def parse(cls, connection: str) -> Attached:
        bridge, device, board, chip = (connection.split("!") + [_UNKNOWN] * 4)[:4]
        return cls(connection, bridge, device.partition("(")[2].rpartition(")")[0] or device, board, chip)

    @property
    def held(self) -> bool:
        """Another program has it, or there are no rights to it."""
        return self.serial == _HELD

    @property
    def state(self) -> str:
        if self.held:
            return "held by another program, or no rights to it"
        if self.board == _UNKNOWN:
            return "no board recognised"
        return "no chip recognised" if self.chip == _UNKNOWN else "ready"

    def __str__(self) -> str:
        return f"{self.serial} ({self.board}, {self.chip}): {self.state}"


class Geometry(NamedTuple):
    """What the settings mean for a frame; SI units."""

    samplers: int
    first_time: float
    time_step: float
    first_range: float
    range_step: float
    sweep_time: float
    frame_time: float
    pulse_rate: float
    unambiguous_range: float


class Finding(NamedTuple):
    """A setting that can't give a good frame."""

    name: str
    what: str
    remedy: str


@dataclass(frozen=True)
class Calibration:
    """The results of a calibration; seconds, hertz."""

    samples_per_second: float
    delay_coarse_tune: float
    delay_medium_tune: float
    delay_fine_tune: float  #: 0: not measured
    coarse_steps: npt.NDArray[np.float64]
    medium_steps: npt.NDArray[np.float64]
    fine_steps: npt.NDArray[np.float64]
    results: npt.NDArray[np.float64]  #: the whole vector

    def __repr__(self) -> str:
        delays = (self.delay_coarse_tune, self.delay_medium_tune, self.delay_fine_tune)
        picoseconds = ", ".join(f"{delay * 1e12:.4g} ps" for delay in delays if delay)
        return f"Calibration({self.samples_per_second / 1e9:.4f} GS/s, delay elements of {picoseconds})"


def _release(pointer: ctypes.c_void_p) -> None:
    library().QTX_CloseRadar(pointer)
    library().QTX_FreeHandle(ctypes.byref(pointer))


class Radar:
    """A radar. pulsekit3.open() gives an open one; a with block closes it.

    Any thread may use it: calls wait for each other, but for cancel(). Ctrl-C ends a call of the main thread at once, with
    KeyboardInterrupt, or with Cancelled where the program has a handler of its own that raises nothing."""

    def __init__(self) -> None:
        self._lock = threading.RLock()
        self._types: dict[str, int] = {}
        self._items: dict[str, tuple[tuple[int, str], ...]] = {}
        self._lists: dict[str, tuple[str, ...]] = {}
        self._models: list[str] = []
        self.attached: Optional[Attached] = None  #: what is open
        self._pointer = ctypes.c_void_p()
        code = library().QTX_InitHandle(ctypes.byref(self._pointer))
        if code:
            raise errors.own(code, "no handle")
        self._finalizer = weakref.finalize(self, _release, self._pointer)
        _radars.add(self)

    # ---- Calls ----

    def _call(self, function: str, *arguments: Any) -> None:
        with self._lock:
            code = _interrupt.call(getattr(library(), function), self._pointer.value or 0, *arguments)
            if code:
                raise errors.last(self._pointer.value, code)

    def _text(self, function: str, *arguments: Any) -> str:
        with self._lock:
            pointer = self._pointer.value or 0
            code, text = read_text(lambda *rest: _interrupt.call(getattr(library(), function), pointer, *rest), *arguments)
            if code:
                raise errors.last(pointer, code)
            return text

    def _names(self, function: str) -> tuple[str, ...]:
        """Of variables or actions; none without a radar."""
        if self.attached is None:
            return ()
        if function not in self._lists:
            names = self._text(function).split(",")
            self._lists[function] = tuple(dict.fromkeys(name for name in names if name))
        return self._lists[function]

    def _meaning(self, name: str) -> Meaning:
        return meaning_of(self._models, name)

    def _forget(self) -> None:
        self.attached = None
        self._types.clear()
        self._items.clear()
        self._lists.clear()
        self._models = []

    # ---- Open and close ----

    def open(self, connection: str, partial: bool = False) -> None:
        """Opens what the connection string names; partial: also a board whose chip does not start or is not known."""
        with self._lock:
            self._forget()
            attached = Attached.parse(connection)
            try:
                self._call("QTX_OpenRadar", encoded(connection))
            except errors.Error:
                if not partial or self.state != "open":
                    library().QTX_CloseRadar(self._pointer)
                    raise
            if self.state != "open":
                raise errors.last(self._pointer.value, 0)
            drivers = self._drivers()
            self._models = [attached.chip, drivers.get(attached.board, attached.board), attached.bridge]
            self.attached = attached

    def _drivers(self) -> dict[str, str]:
        """Board names and their drivers."""
        entries = read_text(library().QTX_ListSupportedModules)[1].split(",")
        pairs = (entry.rstrip(")").partition(" (") for entry in entries)
        return {board: driver for board, _, driver in pairs}

    def close(self) -> None:
        """Closing twice is fine."""
        with self._lock:
            self._call("QTX_CloseRadar")
            self._forget()

    def __enter__(self) -> Radar:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<pulsekit3.Radar {self.attached or 'closed'}>"

    @property
    def is_open(self) -> bool:
        return self.attached is not None

    @property
    def state(self) -> str:
        """ "closed", "open", or "lost" when its bridge is gone."""
        state = ctypes.c_int32()
        self._call("QTX_RadarState", ctypes.byref(state))
        return ("closed", "open", "lost")[state.value]

    def power_on(self) -> None:
        """Switches the board's supply on and starts board and chip anew."""
        self._call("QTX_PowerOnRadar")

    def power_off(self) -> None:
        self._call("QTX_PowerOffRadar")

    def cancel(self) -> None:
        """From any thread: the call that waits now ends with Cancelled."""
        library().QTX_Cancel(self._pointer)

    def set_wait_limit(self, seconds: Optional[float]) -> None:
        """The longest that one wait may last before it ends with WaitedTooLong; None: no limit."""
        self._call("QTX_SetWaitLimit", 0 if seconds is None else max(1, round(seconds * 1000)))

    # ---- Settings and actions ----

    @property
    def settings(self) -> Settings:
        return Settings(self)

    @property
    def actions(self) -> Actions:
        return Actions(self)

    def save(self, path: str | os.PathLike[str]) -> None:
        """All settings, as a text file."""
        self._call("QTX_VarsSaveToFile", path_bytes(path))

    def load(self, path: str | os.PathLike[str]) -> None:
        """Settings from a file; Error 1 when it named unknown ones: the others are set."""
        self._call("QTX_VarsLoadFromFile", path_bytes(path))

    def check(self) -> list[Finding]:
        """Settings that can't give a good frame."""
        findings = ctypes.c_int32()
        with self._lock:
            pointer = self._pointer.value or 0
            code, text = read_text(lambda *room: library().QTX_CheckSettings(pointer, *room, ctypes.byref(findings)))
            if code:
                raise errors.last(pointer, code)
        return [Finding(*(line.split(": ", 2) + ["", ""])[:3]) for line in text.splitlines()]

    # ---- Frames ----

    @property
    def geometry(self) -> Geometry:
        shape = _Geometry(ctypes.sizeof(_Geometry))
        self._call("QTX_GetFrameGeometry", ctypes.byref(shape))
        return Geometry(*(getattr(shape, name) for name in Geometry._fields))

    def ranges(self) -> npt.NDArray[np.float64]:
        """The distance in metres that each entry of a frame looks at."""
        shape = self.geometry
        return shape.first_range + shape.range_step * np.arange(shape.samplers)

    def times(self) -> npt.NDArray[np.float64]:
        """Seconds after the pulse, of each entry of a frame."""
        shape = self.geometry
        return shape.first_time + shape.time_step * np.arange(shape.samplers)

    def frame(self, kind: stream.Kind = "double", out: Optional[npt.NDArray[Any]] = None) -> npt.NDArray[Any]:
        """A frame: the level at each sampler in percent ("double", "float"), or its counter ("raw"). It is written into `out`
        where that is given, an array of the right type and of as many entries as a frame or more."""
        with self._lock:
            if out is None:
                samplers = self.settings.SamplersPerFrame if "SamplersPerFrame" in self.settings else 0
                out = np.empty(samplers, stream.kind_of(kind)[1])
            stream.frame_into(self, kind, out)
        return out

    def stream(
        self, rate: float = 0, kind: stream.Kind = "double", count: Optional[int] = None, timeout: Optional[float] = None
    ) -> stream.Stream:
        """Frames one after the other, `rate` a second or as fast as the radar takes them (0), `count` of them or without end.
        A frame that takes longer than timeout seconds ends with WaitedTooLong."""
        return stream.Stream(self, rate, kind, count, timeout)

    def cdf(self) -> npt.NDArray[np.uint32]:
        """Counters of every sampler (columns) at every threshold from DACMin to DACMax in steps of DACStepFine (rows)."""
        width, lines = ctypes.c_uint32(), ctypes.c_uint32()
        with self._lock:
            self._call("QTX_CalculateCDF_Size", ctypes.byref(width), ctypes.byref(lines))
            if width.value * lines.value >= 1 << 31:
                raise errors.own(1541, "DACMin is above DACMax", "reset them, or take DACMin below DACMax")
            table = np.empty((lines.value, width.value), np.uint32)
            self._call("QTX_GetCDF", table.ctypes.data, table.size)
        return table

    @contextmanager
    def logging_frames(self, path: str | os.PathLike[str], raw: bool = False, text: bool = False, digits: int = 6) -> Iterator[None]:
        """While it lasts, every frame goes to the file, too; read_frame_log() reads it."""
        self._call("QTX_FrameLoggingStart", path_bytes(path), (1 if raw else 2) | (0x10 if text else 0x20), digits)
        try:
            yield
        finally:
            self._call("QTX_FrameLoggingStop")

    def plot(self, frame: Optional[npt.ArrayLike] = None, ax: Any = None) -> Any:
        """Draws a frame over the range, a new one unless it is given, and returns Matplotlib's axes."""
        return plot(self.frame() if frame is None else frame, self.ranges(), ax)

    def waterfall(self, rate: float = 10, count: int = 100, ax: Any = None) -> Any:
        """Streams frames and draws what moves, over range and time; returns Matplotlib's axes."""
        return waterfall(list(self.stream(rate, count=count)), self.ranges(), ax=ax)

    # ---- Calibration ----

    def calibrate(self, block: Optional[int] = None) -> Calibration:
        """Measures delay lines and sampling rate, which takes seconds, and keeps them in a block of the flash if one is given."""
        with self._lock:
            self._call("QTX_Calibrate", -1 if block is None else block)
            return self.calibration()

    def calibration(self) -> Calibration:
        """The results as they are."""
        values = np.zeros(_RESULTS)
        self._call("QTX_TimingMeasurementResults", values.ctypes.data, len(values))
        coarse, medium, fine, rate = (float(value) for value in values[381:385])
        return Calibration(rate, coarse, medium, fine, values[387:450], values[451:514], values[515:579], values)

    def save_calibration(self, block: int) -> None:
        self._call("QTX_TimingMeasurementSaveDataToFlash", block)

    def load_calibration(self, block: int) -> None:
        self._call("QTX_TimingMeasurementLoadDataFromFlash", block)

    # ---- Board ----

    @property
    def flash(self) -> Flash:
        return Flash(self)

    @property
    def board(self) -> Board:
        return Board(self)

    # ---- Pass-through, for diagnostics and production ----

    def read_register(self, address: int, size: int = 1) -> int:
        value = ctypes.c_uint64()
        self._call("QTX_RegisterRead", _byte(address), _whole(size), ctypes.byref(value))
        return value.value

    def write_register(self, address: int, value: int, size: int = 1) -> None:
        if not 0 <= value < 1 << 8 * max(1, size):
            raise ValueError(f"{value} does not fit into {size} bytes")
        self._call("QTX_RegisterWrite", _byte(address), size, value)

    def pin(self, number: int) -> int:
        """The level of a pin: of the bridge below 500, the board's own names from 500 on."""
        level = ctypes.c_uint32()
        self._call("QTX_IO_GetValue", _whole(number), ctypes.byref(level))
        return level.value

    def set_pin(self, number: int, level: int) -> None:
        """Makes a pin an output of this level."""
        self._call("QTX_IO_SetDirection", _whole(number), 1, _whole(level))

    def release_pin(self, number: int) -> None:
        """Makes a pin an input."""
        self._call("QTX_IO_SetDirection", _whole(number), 0, 0)

    def spi(self, channel: int, out: bytes, count: int = 0) -> bytes:
        """Sends bytes to the chip (channel 0) or the flash (1), then takes as many as count."""
        answer = ctypes.create_string_buffer(max(1, _whole(count)))
        self._call("QTX_SPI_SendReceive", _whole(channel), bytes(out), len(out), answer, count)
        return answer.raw[:count]

    @contextmanager
    def logging_bus(self, path: str | os.PathLike[str]) -> Iterator[None]:
        """While it lasts, every transfer on the SPI bus goes to the file."""
        name = path_bytes(path)
        self._call("QTX_InterfaceLogging", 1, name)
        try:
            self._call("QTX_InterfaceLogging", 3, name)
            yield
        finally:
            self._call("QTX_InterfaceLogging", 2, name)


class Flash:
    """The flash of a board: radar.flash"""

    def __init__(self, radar: Radar) -> None:
        self._radar = radar

    def read(self, address: int, size: int) -> bytes:
        """From an address that is a multiple of 256."""
        data = ctypes.create_string_buffer(max(1, _whole(size)))
        self._radar._call("QTX_ModuleReadFlashMemory", _whole(address), data, size)
        return data.raw[:size]

    def write(self, address: int, data: bytes) -> None:
        """Erases the block of 4096 bytes that holds the address, a multiple of 256, and writes at most to its end."""
        if address % 256 == 0 and address % _ONE_BLOCK + len(data) > _ONE_BLOCK:
            raise ValueError(f"{len(data)} bytes at {address:#x} do not fit into the block of {_ONE_BLOCK} bytes there")
        self._radar._call("QTX_ModuleWriteFlashMemory", _whole(address), bytes(data), len(data))

    def save_settings(self) -> None:
        self._radar._call("QTX_VarsSaveToFlash")

    def load_settings(self) -> None:
        self._radar._call("QTX_VarsLoadFromFlash")


class BoardInformation(NamedTuple):
    name: str
    identity: str


class Board:
    """What a board tells about itself: radar.board"""

    def __init__(self, radar: Radar) -> None:
        self._radar = radar

    def read(self, size: int = 128) -> bytes:
        data = ctypes.create_string_buffer(max(1, _whole(size)))
        self._radar._call("QTX_ModuleReadBoardInfo", data, size)
        return data.raw[:size]

    @property
    def information(self) -> BoardInformation:
        data = self.read(64)
        return BoardInformation(*(decoded(part.rstrip(b"\0 \xff").partition(b"\0")[0]) for part in (data[:31], data[32:])))

    def program(self, name: str, identity: str = "") -> None:
        """For good: bits of the one-time-programmable memory can only be cleared."""
        supported = self._radar._drivers()
        if name not in supported:
            raise ValueError(f"{name!r} is no type of board: {', '.join(supported)}")
        if len(encoded(identity)) > 32:
            raise ValueError(f"identity {identity!r} is longer than 32 bytes")
        data = encoded(name).ljust(32, b"\0") + encoded(identity).ljust(32, b"\0")
        self._radar._call("QTX_ModuleProgramBoardInfo", data, len(data))

    def __repr__(self) -> str:
        return repr(self.information)


def _whole(number: int) -> int:
    if not 0 <= number < 1 << 31:
        raise ValueError(f"{number} is not from 0 to {(1 << 31) - 1}")
    return number


def _byte(number: int) -> int:
    if not 0 <= number < 256:
        raise ValueError(f"{number} is not from 0 to 255")
    return number


# ---- Attached radars ----

_listing = threading.RLock()  # a list opens every radar for a moment, which would keep another thread from opening it


def list_radars() -> list[Attached]:
    """All that are attached. Their boards are powered up on the way."""
    with _listing:
        text = Radar()._text("QTX_ListRadarModules")
    return [Attached.parse(connection) for connection in text.split("#") if connection]


def open(which: str | Attached | None = None, *, partial: bool = False) -> Radar:
    """The radar of this serial number, entry of list_radars() or connection string; without one, the only one there is.

    partial: also a board whose chip does not start, or where board or chip are not known."""
    connection = which.connection if isinstance(which, Attached) else which
    with _listing:
        if connection is None or connection.count("!") != 3:
            connection = _chosen(connection, partial)
        radar = Radar()
        radar.open(connection, partial)
    return radar


def _chosen(serial: Optional[str], partial: bool) -> str:
    radars = list_radars()
    usable = [radar for radar in radars if not radar.held and (partial or radar.state == "ready")]
    fitting = usable if serial is None else [radar for radar in usable if radar.serial == serial]
    if len(fitting) == 1:
        return fitting[0].connection
    listed = "; ".join(map(str, radars))
    if fitting:
        raise errors.own(267, f"{len(fitting)} radars are attached: {listed}", "name one: pulsekit3.open(SERIAL)")
    wanted = "no radar that can be used" if serial is None else f"no radar {serial!r} that can be used"
    raise errors.own(267, wanted, f"attached: {listed}" if radars else bridge_libraries())


def wait_for_change(timeout: Optional[float] = None) -> bool:
    """Waits until radars come or go, for at most timeout seconds; whether they did."""
    global _watcher
    with _watcher_guard:
        _watcher = _watcher or Radar()
        try:
            _watcher._call("QTX_WaitForRadarChange", -1 if timeout is None else round(timeout * 1000))
        except errors.WaitedTooLong:
            return False
    return True


_watcher: Optional[Radar] = None  # remembers the list of the last call
_watcher_guard = threading.Lock()


def bridge_libraries() -> str:
    """Which bridge libraries were looked for, a line each, with what became of it."""
    return read_text(library().FTx232H_DescribeBridgeLibraries)[1].rstrip()


def version() -> str:
    return read_text(library().QTX_Version)[1]


def close_all() -> None:
    for radar in list(_radars):
        with suppress(errors.Error):  # what can't be closed must not keep the others open
            radar.close()
