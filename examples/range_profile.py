"""Shows what stands before the radar, and how far away: the peaks of an averaged frame."""

import numpy as np

import pulsekit3
from baseband import baseband

FRAMES = 20
PEAK_TO_MEDIAN = 4
APART = 0.2  # m

with pulsekit3.open() as radar:
    radar.calibrate()  # else ranges are some per cent off
    radar.settings.FrameStitch = 3  # three windows, one behind the other
    mean = np.mean([radar.frame() for _ in range(FRAMES)], axis=0)
    shape, ranges = radar.geometry, radar.ranges()

profile = np.abs(baseband(mean, shape.time_step))
floor = np.median(profile)
apart = int(APART / shape.range_step)
for k in range(apart, len(profile) - apart):
    if profile[k] >= PEAK_TO_MEDIAN * floor and profile[k] == profile[k - apart : k + apart].max():
        print(f"{ranges[k]:.2f} m  {20 * np.log10(profile[k] / floor):.0f} dB")
