"""Pulsekit3: impulse radars from Python.

    import pulsekit3

    with pulsekit3.simulated(), pulsekit3.open() as radar:  # or without simulated(), on hardware
        radar.settings.PulsesPerStep = 40
        print(radar.settings)
        frame = radar.frame()          # levels in percent; radar.ranges() is its axis in metres
        for frame in radar.stream(rate=100, count=10):
            print(frame.time, frame.max())
"""

from .errors import (
    BoardError,
    BridgeError,
    BufferTooSmall,
    Cancelled,
    ChipError,
    Error,
    FileError,
    IllegalValue,
    NoRadar,
    NoStream,
    NotPossible,
    NotSupported,
    NotVisible,
    NothingStored,
    OutOfMemory,
    RadarError,
    ReadOnly,
    SettingError,
    StreamRunning,
    UnknownAction,
    UnknownVariable,
    WaitedTooLong,
)
from .files import FrameLog, SettingsFile, read_frame_log, read_settings
from .plotting import plot, waterfall
from .radar import Attached, Calibration, Radar, bridge_libraries, list_radars, open, version, wait_for_change
from .settings import AUTOMATIC, Change, Setting, Settings
from .simulation import Bench, Reflector, simulated
from .stream import Frame, Stream

__version__ = "3.3.0rc1"
__all__ = [
    "Attached",
    "AUTOMATIC",
    "Bench",
    "BoardError",
    "bridge_libraries",
    "BridgeError",
    "BufferTooSmall",
    "Calibration",
    "Cancelled",
    "Change",
    "ChipError",
    "Error",
    "FileError",
    "Frame",
    "FrameLog",
    "IllegalValue",
    "list_radars",
    "NoRadar",
    "NoStream",
    "NothingStored",
    "NotPossible",
    "NotSupported",
    "NotVisible",
    "open",
    "OutOfMemory",
    "plot",
    "Radar",
    "RadarError",
    "read_frame_log",
    "read_settings",
    "ReadOnly",
    "Reflector",
    "Setting",
    "SettingError",
    "Settings",
    "SettingsFile",
    "simulated",
    "Stream",
    "StreamRunning",
    "UnknownAction",
    "UnknownVariable",
    "version",
    "wait_for_change",
    "WaitedTooLong",
    "waterfall",
]
