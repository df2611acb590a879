"""Pictures, where Matplotlib is installed."""

from __future__ import annotations

from typing import Any, Optional

import numpy as np
import numpy.typing as npt

from .stream import Frame


def _axes(ax: Any) -> Any:
    if ax is not None:
        return ax
    try:
        import matplotlib.pyplot
    except ImportError as missing:
        raise ImportError("pictures need Matplotlib: install python3-matplotlib, or pip install matplotlib") from missing
    return matplotlib.pyplot.subplots()[1]


def plot(frame: npt.ArrayLike, ranges: npt.ArrayLike, ax: Any = None) -> Any:
    """A frame over the range in metres; returns Matplotlib's axes."""
    ax = _axes(ax)
    values = np.asarray(frame)
    ax.plot(np.asarray(ranges), values)
    ax.set_xlabel("range (m)")
    ax.set_ylabel("hits" if values.dtype.kind == "u" else "level (%)")
    return ax


def waterfall(
    frames: npt.ArrayLike, ranges: npt.ArrayLike, times: Optional[npt.ArrayLike] = None, ax: Any = None, background: bool = False
) -> Any:
    """Frames (a row each) over the range in metres and the time in seconds, without what all of them have in common unless the
    background is wanted; returns Matplotlib's axes. A list of a stream's frames brings its times along."""
    if times is None and isinstance(frames, list):
        times = [frame.time for frame in frames if isinstance(frame, Frame)] or None
    ax = _axes(ax)
    rows = np.array(frames, np.float64)
    if rows.ndim != 2 or 0 in rows.shape:
        raise ValueError(f"frames must be rows of equal length, not of shape {rows.shape}")
    distances = np.asarray(ranges, np.float64)
    moments = np.arange(len(rows)) if times is None else np.asarray(times, np.float64)
    if not background:
        rows -= rows.mean(axis=0)
    most = float(np.abs(rows).max()) or 1.0
    limits = {} if background else {"vmin": -most, "vmax": most}
    mesh = ax.pcolormesh(distances, moments, rows, cmap="viridis" if background else "RdBu_r", shading="nearest", rasterized=True, **limits)
    ax.figure.colorbar(mesh, ax=ax, label="level (%)")
    ax.set_xlabel("range (m)")
    ax.set_ylabel("frame" if times is None else "time (s)")
    return ax
