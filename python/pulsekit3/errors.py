"""What can go wrong, as exceptions. Every one has the library's code, text and trace."""

from __future__ import annotations

import ctypes
from typing import Optional

from ._library import decoded, library, read_text


class Error(Exception):
    """A call of the library that failed."""

    def __init__(self, code: int, text: str = "", trace: tuple[str, ...] = (), advice: str = "") -> None:
        super().__init__(code, text, trace, advice)
        self.code = code  #: the library's code
        self.text = text  #: "ERROR 0x503: Unknown variable - Pulses"
        self.trace = trace  #: the way of the failure through the library, where it began first
        self.advice = advice  #: what to do about it; empty where nothing is known
        for line in trace:
            self.add_note(line)

    @property
    def message(self) -> str:
        """What went wrong, without the code."""
        return self.text.partition(": ")[2] or self.text

    def __str__(self) -> str:
        end = f"\n  {self.advice}" if self.advice else ""
        return f"{self.message} (code {self.code}){end}"


class BufferTooSmall(Error, ValueError):
    """2: an array is too small for the frame."""


class NotSupported(Error, NotImplementedError):
    """4: not with this chip."""


class NothingStored(Error, LookupError):
    """5: the flash holds no valid settings or calibration there."""


class FileError(Error):
    """6: a file can't be opened, read or written."""


class OutOfMemory(Error, MemoryError):
    """7."""


class BridgeError(Error):
    """256 to 511: the USB bridge."""


class NoRadar(BridgeError):
    """267: no radar is attached, or none that fits."""


class BoardError(Error):
    """512 to 767: the module board and its flash."""


class ChipError(Error):
    """768 to 1023: the radar chip."""


class RadarError(Error):
    """1024 to 1279: no radar."""


class SettingError(Error):
    """1280 to 1535: settings and actions."""


class NotVisible(SettingError):
    """1282: the setting has no value now."""


class UnknownVariable(SettingError, AttributeError, KeyError):
    """1283: no setting of this name."""


class UnknownAction(SettingError, AttributeError, KeyError):
    """1284: no action of this name."""


class ReadOnly(SettingError, AttributeError):
    """1285: the setting can't be set."""


class IllegalValue(SettingError, ValueError):
    """1286: the setting does not take this value."""


class Cancelled(Error):
    """1537: Radar.cancel() ended the wait."""


class WaitedTooLong(Error, TimeoutError):
    """1538: a time limit is over."""


class NoStream(Error):
    """1539: no stream is running."""


class StreamRunning(Error):
    """1540: not while a stream is running."""


class NotPossible(Error):
    """1541: not possible with these settings."""


_BY_CODE: dict[int, type[Error]] = {
    2: BufferTooSmall,
    4: NotSupported,
    5: NothingStored,
    6: FileError,
    7: OutOfMemory,
    267: NoRadar,
    1282: NotVisible,
    1283: UnknownVariable,
    1284: UnknownAction,
    1285: ReadOnly,
    1286: IllegalValue,
    1537: Cancelled,
    1538: WaitedTooLong,
    1539: NoStream,
    1540: StreamRunning,
    1541: NotPossible,
}
_BY_LAYER: dict[int, type[Error]] = {1: BridgeError, 2: BoardError, 3: ChipError, 4: RadarError, 5: SettingError}


def kind_of(code: int) -> type[Error]:
    """The exception class of a code."""
    return _BY_CODE.get(code, _BY_LAYER.get(code >> 8, Error))


def own(code: int, detail: str, advice: str = "") -> Error:
    """A failure that the package notices itself."""
    text = decoded(library().GetErrorMessage(code))
    return kind_of(code)(code, f"ERROR {code:#x}: {text} - {detail}", (), advice)


def last(handle: Optional[int], code: int) -> Error:
    """The last failure of a handle."""
    buffer = ctypes.create_string_buffer(4096)
    library().QTX_GetErrorDescription(handle, buffer, len(buffer), code)
    text, _, trace = decoded(buffer.value).partition("   at: ")
    steps = [step.strip() for step in trace.split("   from: ") if step.strip()]
    text = text.strip().removesuffix(" -")
    advice = read_text(library().QTX_GetErrorAdvice, handle)[1] if handle else ""
    lines = tuple(("from " if i else "at ") + step for i, step in enumerate(steps))
    return kind_of(code)(code, text, lines, advice)
