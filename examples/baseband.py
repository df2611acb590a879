"""What range_profile and breathing share: a frame without its carrier."""

import numpy as np
import numpy.typing as npt

Levels = npt.NDArray[np.float64]
Echoes = npt.NDArray[np.complex128]

CARRIER = 7.25e9  # Hz, of the pulse that "PGSelect" 5, its automatic value, gives
PULSE = 0.85 ** np.abs(np.arange(-40, 41))  # an echo is some 12 samplers long


def baseband(levels: Levels, time_step: float) -> Echoes:
    """Amplitude and phase of the echo at every sampler: the frame times a rotating phasor, smoothed over the length of a pulse."""
    phases = 2 * np.pi * CARRIER * time_step * np.arange(len(levels))
    return np.convolve((levels - levels.mean()) * np.exp(-1j * phases), PULSE / PULSE.sum(), "same")
