"""Counts breaths: half a minute of frames, the phase of the echo where most moves, and the strongest rhythm in it."""

import numpy as np

import pulsekit3
from baseband import baseband

RATE, FRAMES = 10, 300

with pulsekit3.open() as radar:
    radar.calibrate()
    radar.settings.FrameStitch = 2  # up to 2.3 m
    ranges, time_step = radar.ranges(), radar.geometry.time_step
    frames = list(radar.stream(RATE, count=FRAMES))

echoes = np.array([baseband(np.asarray(frame), time_step) for frame in frames])
mean = echoes.mean(axis=0)
k = np.argmax(np.sum(np.abs(echoes - mean) ** 2, axis=0))  # where most moves
phase = np.angle(echoes[:, k] * np.conj(mean[k]))
times = np.array([frame.time for frame in frames])
breaths = np.arange(6, 60, 0.1)  # a minute
rhythm = np.abs(np.exp(-2j * np.pi * np.outer(breaths / 60, times)) @ phase)
print(f"{ranges[k]:.2f} m: {breaths[np.argmax(rhythm)]:.1f} breaths a minute")
