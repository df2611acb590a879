"""Files that the library writes, read without a radar."""

from __future__ import annotations

import os
import pathlib
from dataclasses import dataclass, field
from datetime import datetime, timezone
from typing import Any, Literal, Optional

import numpy as np
import numpy.typing as npt

_SECTION = "[Pulsekit variables]"
_MAGIC = b"QTX1 "
_HEADER = 32
_TYPES = {(1, 4): "<u4", (2, 4): "<f4", (2, 8): "<f8"}


class SettingsFile(dict[str, "int | float"]):
    """The settings in a file: name and value; an enumeration's value is the index of its item."""

    def __init__(self) -> None:
        super().__init__()
        self.automatic: set[str] = set()  #: names of those that follow their automatic value
        self.read_only: set[str] = set()
        self.board = ""
        self.chip_id: Optional[int] = None
        self.version = ""
        self.saved = ""

    @property
    def fixed(self) -> dict[str, int | float]:
        """Those that were set by somebody."""
        return {name: value for name, value in self.items() if name not in self.automatic | self.read_only}


def read_settings(path: str | os.PathLike[str]) -> SettingsFile:
    """Reads what Radar.save() wrote."""
    result, inside, found = SettingsFile(), False, False
    content = pathlib.Path(path).read_text(encoding="utf-8", errors="surrogateescape")
    for number, line in enumerate(content.splitlines(), 1):
        if line.startswith(";"):
            _comment(result, line[1:].strip(), f"{os.fspath(path)}:{number}")
        elif line.startswith("["):
            inside = line.startswith(_SECTION)
            found = found or inside
        elif inside and line.strip():
            _setting(result, line, f"{os.fspath(path)}:{number}")
    if not found:
        raise ValueError(f"{os.fspath(path)}: no settings file: settings stand below a line {_SECTION}")
    return result


def _comment(result: SettingsFile, text: str, place: str) -> None:
    if text.startswith("ModuleID="):
        result.board = text.partition("=")[2]
    elif text.startswith("ChipID="):
        try:
            result.chip_id = int(text.partition("=")[2], 16)
        except ValueError:
            raise ValueError(f"{place}: no chip ID: {text}") from None
    elif text.startswith("Pulsekit version:"):
        result.version = text.partition(":")[2].strip()
    elif text.startswith("Generated "):
        result.saved = text.partition(" ")[2]


def _setting(result: SettingsFile, line: str, place: str) -> None:
    name, equals, text = line.partition("=")
    if not equals or not name:
        raise ValueError(f"{place}: no setting: {line}")
    for mark, names in (("<auto>_", result.automatic), ("<read_only>_", result.read_only)):
        names.discard(name)
        if text.startswith(mark):
            text = text[len(mark) :]
            names.add(name)
    try:
        result[name] = int(text) if text.lstrip("-").isdigit() else float(text)
    except ValueError:
        raise ValueError(f"{place}: {name} is no number: {text}") from None


@dataclass(frozen=True)
class FrameLog:
    """The frames of a log, a row each."""

    values: npt.NDArray[Any]
    times: npt.NDArray[np.float64]  #: s after the first frame
    kind: Literal["raw", "level"]
    started: Optional[datetime] = field(default=None)  #: UTC, of a text log
    left_over: int = 0  #: bytes at the end that are no whole frame: the log was cut, or mixes raw frames and levels

    def __len__(self) -> int:
        return len(self.values)


def read_frame_log(path: str | os.PathLike[str]) -> FrameLog:
    """Reads a binary or text frame log."""
    content = pathlib.Path(path).read_bytes()
    if content.startswith(_MAGIC):
        return _binary_log(content, os.fspath(path))
    return _text_log(content, os.fspath(path))


def _binary_log(content: bytes, path: str) -> FrameLog:
    if len(content) < _HEADER:
        raise ValueError(f"{path}: the header of the frame log is cut")
    samplers = int.from_bytes(content[10:14], "little")
    kind, size = content[14], content[15]
    if (kind, size) not in _TYPES or samplers == 0:
        raise ValueError(f"{path}: no frame log: kind {kind}, {size} bytes a value, {samplers} samplers")
    whole, left_over = divmod(len(content) - _HEADER, 8 + samplers * size)
    record = np.dtype([("time", "<u8"), ("values", _TYPES[kind, size], (samplers,))])
    records = np.frombuffer(content, record, whole, _HEADER)
    times = (records["time"] - records["time"][:1]).astype(np.int64) * 1e-6
    return FrameLog(np.ascontiguousarray(records["values"]), times, "raw" if kind == 1 else "level", None, left_over)


def _text_log(content: bytes, path: str) -> FrameLog:
    moments, rows = [], []
    whole, _, rest = content.rpartition(b"\n")
    for number, line in enumerate(whole.decode("ascii", "replace").splitlines(), 1):
        moment, *values = line.split(",")
        try:
            moments.append(datetime.fromisoformat(moment).replace(tzinfo=timezone.utc))
            rows.append(np.array(values, np.float64))
        except ValueError:
            raise ValueError(f"{path}:{number}: no line of a frame log: {line[:40]!r}") from None
        if len(rows[-1]) != len(rows[0]):
            raise ValueError(f"{path}:{number}: {len(rows[-1])} values, {len(rows[0])} in the lines before")
    if not rows:
        raise ValueError(f"{path}: no frame log")
    frames = np.array(rows)
    times = np.array([(moment - moments[0]).total_seconds() for moment in moments])
    raw = b"." not in whole.partition(b"\n")[0].partition(b",")[2]
    return FrameLog(frames.astype(np.int32) if raw else frames, times, "raw" if raw else "level", moments[0], len(rest))
