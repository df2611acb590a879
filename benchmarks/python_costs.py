"""What a streamed frame of 256 samplers costs Python more than C, in one run on the simulated radar.

usage: python_costs.py STREAM_LOOP   the library that stream_loop.c makes; PYTHONPATH and PULSEKIT3_LIBRARY name the rest
"""
import ctypes
import statistics
import sys
import time

import pulsekit3

LOOP = ctypes.CDLL(sys.argv[1])
LOOP.readFrames.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p]
FRAMES, ROUNDS = 320, 60
SUM = ctypes.c_double()


def in_c(stream):
    code = LOOP.readFrames(stream._radar._pointer, FRAMES, 16, ctypes.byref(SUM))
    assert code == 0, code


def in_python(stream):
    total = 0.0
    for _, frame in zip(range(FRAMES), stream):
        total += frame[0] + frame.time


def microseconds(read, stream):
    start = time.thread_time()  # what other programs do meanwhile does not count
    read(stream)
    return (time.thread_time() - start) / FRAMES * 1e6


def resident():
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


with pulsekit3.simulated(), pulsekit3.open() as radar:
    for rate in (0.0, 100.0):
        with radar.stream(rate) as stream:
            pairs = [(microseconds(in_c, stream), microseconds(in_python, stream)) for _ in range(ROUNDS)]
        in_c_median, in_python_median = (statistics.median(column) for column in zip(*pairs))
        more = statistics.median(python - c for c, python in pairs)
        print(f"rate {rate:g}: C {in_c_median:.1f} us, Python {in_python_median:.1f} us, {more:.1f} us more a frame")
    with radar.stream() as stream:
        for _ in zip(range(10000), stream):
            pass
        before = resident()
        for _ in zip(range(100000), stream):
            pass
        print(f"100000 frames: {before} KiB before, {resident()} KiB after")
