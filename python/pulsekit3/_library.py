"""The shared libraries: where they are found, and the C types of what they export."""

from __future__ import annotations

import ctypes
import functools
import os
import pathlib
import sys
from typing import Any

# One letter a C type. Results are error codes unless a type stands behind "->".
_TYPES: dict[str, Any] = {
    "h": ctypes.c_void_p,  # a handle, or a pointer to anything
    "s": ctypes.c_char_p,
    "b": ctypes.c_uint8,
    "i": ctypes.c_int32,
    "u": ctypes.c_uint32,
    "I": ctypes.c_int64,
    "U": ctypes.c_uint64,
    "d": ctypes.c_double,
}

_LIBRARY = """
    QTX_InitHandle h              QTX_FreeHandle h              QTX_Version hi
    QTX_ListSupportedModules hi   QTX_ListSupportedChips hi     QTX_ListSupportedInterfaces hi
    QTX_GetErrorDescription hhii  GetErrorMessage i->s          QTX_GetErrorAdvice hhi
    QTX_ListRadarModules hhu      QTX_OpenRadar hs              QTX_CloseRadar h
    QTX_PowerOnRadar h            QTX_PowerOffRadar h           QTX_RadarState hh
    QTX_Cancel h                  QTX_SetWaitLimit hi           QTX_WaitForRadarChange hi
    QTX_VarSetIntValue_ByName hsI QTX_VarGetValue_ByName hsh    QTX_VarGetType_ByName hsh
    QTX_VarGetEnumsItems_ByName hshh        QTX_VarGetSymbolString hsuhi
    QTX_VarGetIntProperties_ByName hshhhh   QTX_VarGetFloatProperties_ByName hshhhh
    QTX_VarsSetMany hhhuhh        QTX_ListVariables hhi         QTX_ListActions hhi
    QTX_ExecuteAction_ByName hs   QTX_VarsResetAllToDefault h
    QTX_VarsSaveToFile hs         QTX_VarsLoadFromFile hs       QTX_VarsSaveToFlash h
    QTX_VarsLoadFromFlash h       QTX_GetFrameGeometry hh       QTX_CheckSettings hhih
    QTX_GetFrameRaw hhU           QTX_GetFrameNormalizedDouble hhIU  QTX_GetFrameNormalizedFloat hhIU
    QTX_CalculateCDF_Size hhh     QTX_GetCDF hhi                QTX_Calibrate hi
    QTX_FrameLoggingStart hsii    QTX_FrameLoggingStop h
    QTX_InterfaceLogging his      QTX_InterfaceLogComment hs
    QTX_StreamStart hh            QTX_StreamRead hhUhuhi        QTX_StreamStatus hh
    QTX_StreamStop h
    QTX_ModuleReadFlashMemory huhi          QTX_ModuleWriteFlashMemory huhu
    QTX_ModuleReadBoardInfo hhi             QTX_ModuleProgramBoardInfo hhi
    QTX_TimingMeasurementResults hhi        QTX_TimingMeasurementSaveDataToFlash hu
    QTX_TimingMeasurementLoadDataFromFlash hu
    QTX_RegisterRead hbuh         QTX_RegisterWrite hbiU
    QTX_IO_SetValue huu           QTX_IO_SetDirection huuu      QTX_IO_GetValue huh
    QTX_SPI_SendReceive huhihu    QTX_SPI_SendReceiveBits huhihiu
    FTx232H_SetD2XX h             FTx232H_DescribeBridgeLibraries hi
"""

_SIMULATOR = """
    QTXSim_D2XX ->h               QTXSim_Reset                  QTXSim_AddRadar ssiss
    QTXSim_SetHeld ii             QTXSim_Unplug i               QTXSim_Replug i
    QTXSim_PowerCycle i           QTXSim_SetTime i              QTXSim_Nanoseconds ->U
    QTXSim_Advance U              QTXSim_SetScene ihudd         QTXSim_LoadScene ishu
    QTXSim_SetRecording u         QTXSim_FailCall suuu          QTXSim_ClearFaults
"""


class Change(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char * 64),
        ("before", ctypes.c_uint64),
        ("after", ctypes.c_uint64),
        ("type", ctypes.c_uint32),
        ("automatic", ctypes.c_uint32),
    ]


class Geometry(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("samplers", ctypes.c_uint32),
        ("first_time", ctypes.c_double),
        ("time_step", ctypes.c_double),
        ("first_range", ctypes.c_double),
        ("range_step", ctypes.c_double),
        ("sweep_time", ctypes.c_double),
        ("frame_time", ctypes.c_double),
        ("pulse_rate", ctypes.c_double),
        ("unambiguous_range", ctypes.c_double),
    ]


class StreamOptions(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("kind", ctypes.c_uint32),
        ("rate", ctypes.c_double),
        ("in_flight", ctypes.c_uint32),
    ]


class StreamStatistics(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint32),
        ("in_flight", ctypes.c_uint32),
        ("frames", ctypes.c_uint64),
        ("retaken", ctypes.c_uint64),
        ("lost", ctypes.c_uint64),
        ("late", ctypes.c_uint64),
        ("frame_time", ctypes.c_double),
        ("sweep_time", ctypes.c_double),
    ]


class Reflector(ctypes.Structure):
    _fields_ = [
        ("range", ctypes.c_double),
        ("strength", ctypes.c_double),
        ("motion", ctypes.c_int32),
        ("speed", ctypes.c_double),
        ("amplitude", ctypes.c_double),
        ("rate", ctypes.c_double),
    ]


def encoded(text: str) -> bytes:
    """A text as the library takes it."""
    if "\0" in text:
        raise ValueError(f"{text!r} holds a null character")
    return text.encode("utf-8", "surrogateescape")


def decoded(text: bytes) -> str:
    return text.decode("utf-8", "backslashreplace")


def path_bytes(path: str | os.PathLike[str]) -> bytes:
    name = os.fspath(path)
    if "\0" in name:
        raise ValueError(f"{name!r} holds a null character")
    return os.fsencode(name)


def _file_names(name: str) -> list[str]:
    if sys.platform == "win32":
        return [f"{name}.dll", f"lib{name}.dll"]
    if sys.platform == "darwin":
        return [f"lib{name}.dylib", f"lib{name}.3.dylib"]
    return [f"lib{name}.so", f"lib{name}.so.3"]


def _declare(library: ctypes.CDLL, table: str) -> None:
    words = iter(table.split())
    word = next(words, None)
    while word is not None:
        function = getattr(library, word)
        word = next(words, None)
        arguments, result = "", "i"
        if word is not None and not word.startswith(("QTX", "GetError", "FTx")):
            arguments, _, result = word.partition("->")
            result = result or "i"
            word = next(words, None)
        function.argtypes = [_TYPES[letter] for letter in arguments]
        function.restype = _TYPES[result]


def _load(candidates: list[str], table: str, remedy: str) -> ctypes.CDLL:
    failures = []
    for candidate in candidates:
        try:
            # CDLL lets other threads run during every call.
            library = ctypes.CDLL(candidate)
            _declare(library, table)
            return library
        except (OSError, AttributeError) as failure:
            failures.append(str(failure))
    raise ImportError("\n  ".join([remedy, *failures]))


def _bundled(name: str) -> list[str]:
    """In a wheel that carries the libraries."""
    folder = pathlib.Path(__file__).parent / "lib"
    return [str(folder / file) for file in _file_names(name) if (folder / file).exists()]


@functools.cache
def library() -> ctypes.CDLL:
    """The library that PULSEKIT3_LIBRARY names, else the one of the wheel, else the system's."""
    named = os.environ.get("PULSEKIT3_LIBRARY")
    candidates = [named] if named else _bundled("Pulsekit3") + _file_names("Pulsekit3")[::-1]
    return _load(
        candidates,
        _LIBRARY,
        "The Pulsekit3 library was not found: install the package pulsekit3, or a wheel that carries the library, "
        "or name the library in PULSEKIT3_LIBRARY.",
    )


@functools.cache
def simulator() -> ctypes.CDLL:
    """The simulated bench: beside the library, else the system's."""
    library_file = pathlib.Path(os.path.realpath(library()._name))
    names = _file_names("Pulsekit3Simulator")
    beside = [str(library_file.parent / name) for name in names if (library_file.parent / name).exists()]
    return _load(
        beside + names[::-1],
        _SIMULATOR,
        "The simulated radars were not found: they are the library Pulsekit3Simulator beside the Pulsekit3 library.",
    )


def read_text(function: Any, *arguments: Any) -> tuple[int, str]:
    """Calls function(*arguments, buffer, size) with a buffer that is large enough; its code and the text."""
    size = 4096
    while True:
        buffer = ctypes.create_string_buffer(size + 1)
        code: int = function(*arguments, buffer, size)
        if code != 2 or size >= 1 << 22:
            return code, decoded(buffer.value)
        size *= 4
