"""Radars without hardware: pulsekit3.simulated()."""

from __future__ import annotations

import ctypes
import os
from collections.abc import Sequence
from dataclasses import dataclass
from typing import ClassVar, Literal, Optional, Union

from . import radar
from ._library import Reflector as _Reflector
from ._library import decoded, encoded, library, path_bytes, simulator

Time = Literal["deterministic", "host", "real"]
_TIMES = ("deterministic", "host", "real")
_BRIDGES = ("FT232H", "FT2232H", "FT4232H")
_MOTIONS = ("still", "speed", "breathing")


@dataclass(frozen=True)
class Reflector:
    """Something that reflects the pulse; metres, m/s, hertz."""

    range: float
    strength: float  #: amplitude of the echo at one metre, in codes of the threshold DAC
    motion: Literal["still", "speed", "breathing"] = "still"
    speed: float = 0.0  #: away from the radar
    amplitude: float = 0.0  #: of breathing, either way
    rate: float = 0.0  #: of breathing


Scene = Union[str, "os.PathLike[str]", Sequence[Reflector]]


class Bench:
    """A bench of simulated radars, of which there is one in a process."""

    _running: ClassVar[Optional[Bench]] = None

    def __init__(self, scene: Optional[Scene], time: Time, radars: int, direct_coupling: float, noise: float) -> None:
        if time not in _TIMES:
            raise ValueError(f"time {time!r} is none of {', '.join(_TIMES)}")
        self._first = scene, _TIMES.index(time), radars, direct_coupling, noise
        self._radars = 0

    def start(self) -> Bench:
        """From now on, the radars that are found are these."""
        if Bench._running:
            raise RuntimeError("a bench is simulated already: there is one in a process")
        scene, time, radars, direct_coupling, noise = self._first
        Bench._running, self._radars = self, 0
        try:
            simulator().QTXSim_Reset()
            simulator().QTXSim_SetRecording(0)
            simulator().QTXSim_SetTime(time)
            for _ in range(radars):
                self.add_radar(scene, direct_coupling=direct_coupling, noise=noise)
            library().FTx232H_SetD2XX(simulator().QTXSim_D2XX())
        except BaseException:
            self.stop()
            raise
        return self

    def stop(self) -> None:
        """Closes the radars that are open, and takes all away. Twice is fine."""
        if Bench._running is not self:
            return
        radar.close_all()
        library().FTx232H_SetD2XX(None)
        simulator().QTXSim_Reset()
        Bench._running = None

    __enter__ = start

    def __exit__(self, *_: object) -> None:
        self.stop()

    def add_radar(
        self,
        scene: Optional[Scene] = None,
        *,
        serial: str = "",
        board: Optional[str] = "QTX-K245",
        chip: Optional[str] = "QTX3701",
        bridge: str = "FT232H",
        direct_coupling: float = 500.0,
        noise: float = 40.0,
    ) -> int:
        """Plugs one in and returns its number. board "": one that was never programmed; None: no board, no chip."""
        if bridge not in _BRIDGES:
            raise ValueError(f"bridge {bridge!r} is none of {', '.join(_BRIDGES)}")
        names = [None if name is None else encoded(name) for name in (board, chip if board is not None else None)]
        name = encoded(serial or f"SIM{self._radars + 1:05}")
        number: int = simulator().QTXSim_AddRadar(name, b"Simulated radar", _BRIDGES.index(bridge), *names)
        if number < 0:
            raise ValueError(f"no such radar: serial {serial!r}, board {board!r}, chip {chip!r}")
        self._radars += 1
        if scene is not None:
            self.set_scene(scene, number, direct_coupling=direct_coupling, noise=noise)
        return number

    def set_scene(
        self,
        scene: Scene,
        number: int = 0,
        *,
        direct_coupling: float = 500.0,
        noise: float = 40.0,
    ) -> None:
        """What a radar looks at from now on: a scene file, or reflectors."""
        if isinstance(scene, (str, os.PathLike)):
            error = ctypes.create_string_buffer(512)
            if simulator().QTXSim_LoadScene(number, path_bytes(scene), error, len(error)):
                raise ValueError(f"{os.fspath(scene)}: {decoded(error.value)}")
            return
        for reflector in scene:
            if reflector.motion not in _MOTIONS:
                raise ValueError(f"motion {reflector.motion!r} is none of {', '.join(_MOTIONS)}")
        reflectors = (_Reflector * len(scene))(
            *(
                _Reflector(one.range, one.strength, _MOTIONS.index(one.motion), one.speed, one.amplitude, one.rate)
                for one in scene
            )
        )
        self._done(simulator().QTXSim_SetScene(number, reflectors, len(scene), direct_coupling, noise), "impossible scene")

    @property
    def seconds(self) -> float:
        """On the simulated clock."""
        return int(simulator().QTXSim_Nanoseconds()) * 1e-9

    def advance(self, seconds: float) -> None:
        """The host does something else for so long."""
        simulator().QTXSim_Advance(round(max(0.0, seconds) * 1e9))

    def unplug(self, number: int = 0) -> None:
        self._done(simulator().QTXSim_Unplug(number), f"no radar {number}")

    def replug(self, number: int = 0) -> None:
        self._done(simulator().QTXSim_Replug(number), f"no radar {number}")

    def hold(self, number: int = 0, held: bool = True) -> None:
        """Another program has it, or lets go of it."""
        self._done(simulator().QTXSim_SetHeld(number, held), f"no radar {number}")

    def _done(self, answer: int, failure: str) -> None:
        if answer != 0:
            raise ValueError(failure)


def simulated(
    scene: Optional[Scene] = None,
    *,
    time: Time = "deterministic",
    radars: int = 1,
    direct_coupling: float = 500.0,
    noise: float = 40.0,
) -> Bench:
    """In a with block, the radars that are found are simulated ones, which look at a scene: a file such as examples/room.toml, or
    reflectors. Radars that are open at its end are closed. At the prompt start() and stop() do without the block.

    time: "deterministic" (quick, the same in every run), "host" (what the program does between calls takes time, too) or "real"
    (calls take as long as on hardware). radars: how many; Bench.add_radar() plugs in others."""
    return Bench(scene, time, radars, direct_coupling, noise)
