"""The Python package on simulated radars, as a person uses it. usage: end_to_end.py HEADERS..."""
import asyncio
import concurrent.futures
import faulthandler
import os
import pathlib
import pickle
import re
import signal
import sys
import tempfile
import threading
import time
import unittest
import unittest.mock

import numpy

import pulsekit3
from pulsekit3 import _library

HEADERS = [sys.argv.pop() for _ in sys.argv[1:]]
ENDLESS = {"PulsesPerStep": 16777215, "Iterations": 65535}  # sweeps of hours

# what is done with an open radar, the exception, what its text holds
FAILURES = [
    (lambda radar: radar.settings.PulsePerStep, AttributeError, "Did you mean PulsesPerStep"),
    (lambda radar: setattr(radar.settings, "SamplersOnChip", 1), pulsekit3.ReadOnly, "code 1285"),
    (lambda radar: setattr(radar.settings, "SampleDelay", float("nan")), ValueError, "code 1286"),
    (lambda radar: setattr(radar.settings, "SPIClockFrequency", 7), ValueError, "take one of 30MHz"),
    (lambda radar: setattr(radar.settings, "PulsesPerStep", [1]), TypeError, "a number or a text"),
    (lambda radar: radar.settings.update({"Pulses\0PerStep": 1}), ValueError, "null character"),
    (lambda radar: radar.actions.MeasureAl, AttributeError, "MeasureAll"),
    (lambda radar: radar.frame("levels"), ValueError, "double"),
    (lambda radar: radar.frame(out=numpy.empty(10)), pulsekit3.BufferTooSmall, "code 2"),
    (lambda radar: radar.frame(out=numpy.empty(512)[::2]), ValueError, "contiguous"),
    (lambda radar: list(zip(radar.stream(), radar.stream())), pulsekit3.StreamRunning, "code 1540"),
    (lambda radar: radar.load_calibration(9), pulsekit3.NothingStored, "code 5"),
    (lambda radar: radar.load("no such file"), pulsekit3.FileError, "no such file"),
    (lambda radar: radar.flash.write(0x10F00, bytes(512)), ValueError, "do not fit"),
    (lambda radar: radar.write_register(0x31, -1), ValueError, "does not fit"),
    (lambda radar: radar.board.program("K245"), ValueError, "QTX-K245"),
    (lambda radar: pulsekit3.open("SIM00009"), pulsekit3.NoRadar, "no radar 'SIM00009'"),
    (lambda radar: pulsekit3.simulated().start(), RuntimeError, "one in a process"),
    (lambda radar: pulsekit3.read_settings(__file__), ValueError, "no settings file"),
    (lambda radar: pulsekit3.read_frame_log(__file__), ValueError, ":1: no line of a frame log"),
]


def resident():
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path("/proc/self/status").read_text())[1])


class Python(unittest.TestCase):
    time = "deterministic"

    def setUp(self):
        os.chdir(self.enterContext(tempfile.TemporaryDirectory()))
        self.bench = self.enterContext(pulsekit3.simulated(time=self.time))
        self.radar = self.enterContext(pulsekit3.open())
        self.settings = self.radar.settings

    def test_failures(self):
        for act, kind, text in FAILURES:
            with self.subTest(text), self.assertRaises(kind) as caught:
                act(self.radar)
                raise AssertionError("ended")
            self.assertIn(text, str(caught.exception))
        with self.assertRaises(pulsekit3.UnknownVariable) as caught:
            self.settings.PulsePerStep = 1
        self.assertRegex(" ".join(caught.exception.trace), "at findVariable_ByName in .* from ")

    def test_settings(self):
        self.assertIn("PulsesPerStep", dir(self.settings))
        self.assertIn("MeasureAll", dir(self.radar.actions))
        about = self.settings["PulsesPerStep"]
        self.assertEqual(repr(about).splitlines(), ["PulsesPerStep = 20 pulses, automatic, 0 to 16777215 pulses",
                                                    "  Pulses at each step of the threshold"])
        self.assertRegex(repr(self.settings), r"SampleDelay +1.33426 ns +automatic +0 to 1 s")
        with self.assertRaises(pulsekit3.IllegalValue):
            self.settings.update(FrameStitch=3, PulsesPerStep=2.5)
        self.assertEqual(self.settings.FrameStitch, 1)
        moved = self.settings.update(FrameStitch=numpy.int64(3), SPIClockFrequency="30MHz")
        self.assertEqual(moved["SamplersPerFrame"], (256, 768, True))
        self.assertEqual(self.settings.as_dict(fixed=True), {"FrameStitch": 3, "SPIClockFrequency": "30MHz"})
        self.bench.add_radar(chip="QTX3500", serial="OLD")
        with pulsekit3.open("OLD") as old:  # where an item stands twice
            old.settings.PulseGen = 3
            self.assertEqual((old.settings["PulseGen"].items[3], old.settings.PulseGen), ("Off", "Off"))
        self.radar.save("kept.set")
        self.assertEqual(self.settings.reset()["FrameStitch"], (3, 1, True))
        kept = pulsekit3.read_settings("kept.set")
        self.assertEqual((kept.fixed, kept.board, kept.chip_id), ({"FrameStitch": 3}, "QTX-K245", 0x309))
        self.assertEqual((kept["SampleDelay"], "SampleDelay" in kept.automatic), (1.334256e-09, True))

    def test_streams(self):
        with self.radar.logging_frames("levels.log", digits=3), self.radar.logging_frames("counters.csv", raw=True, text=True):
            counters = numpy.array(list(self.radar.stream(100, "raw", 40)))
        log = pulsekit3.read_frame_log("counters.csv")
        self.assertTrue((log.values == counters).all() and log.kind == "raw" and len(log.times) == 40)
        with self.radar.logging_frames("levels.log"):
            frames = self.radar.stream(100).read(40)
        pathlib.Path("levels.log").write_bytes(pathlib.Path("levels.log").read_bytes()[:-1])
        log = pulsekit3.read_frame_log("levels.log")
        self.assertTrue((log.values == frames[:39].astype(log.values.dtype)).all() and log.left_over > 0)
        for frame in self.radar.stream(10):  # so slow that no busy machine makes gaps
            if frame.number >= 3:
                break
        self.assertEqual((round(frame.time, 6), pickle.loads(pickle.dumps(frame)).number), (0.3, 3))
        self.assertEqual(self.radar.frame().shape, self.radar.ranges().shape)  # the stream has ended with the loop
        with self.radar.stream(kind="float") as stream:
            self.settings.FrameStitch = 15
            self.assertEqual({len(frame) for frame, _ in zip(stream, range(40))}, {256, 3840})
            self.settings.FrameStitch = 1
            next(frame for frame in stream if len(frame) == 256)
            before = resident()
            for _ in range(20000):
                next(stream)
            self.assertLess(resident() - before, 1000)
            self.bench.unplug()
            self.assertRaises(pulsekit3.BridgeError, list, stream)
        self.assertEqual(self.radar.state, "lost")

    def test_pictures(self):
        with unittest.mock.patch.dict(sys.modules, {"matplotlib.pyplot": None}):
            self.assertRaisesRegex(ImportError, "python3-matplotlib", self.radar.plot)
        axes = unittest.mock.MagicMock()
        self.radar.plot(ax=axes)
        self.radar.waterfall(10, 5, ax=axes)
        _, times, values = axes.pcolormesh.call_args.args
        self.assertEqual((values.shape, times.round(6).tolist()), ((5, 256), [0, 0.1, 0.2, 0.3, 0.4]))

    def test_types_of_the_library(self):
        declared = " ".join(pathlib.Path(header).read_text() for header in HEADERS)
        for library in (_library.library(), _library.simulator()):
            for name, function in vars(library).items():
                if name.startswith(("QTX", "FTx", "Get")):
                    arguments = re.search(rf"\b{name}\(([^)]*)\);", declared)[1]
                    self.assertEqual(len(function.argtypes), 0 if arguments in ("", "void") else arguments.count(",") + 1, name)


class RealTime(Python):
    time = "real"
    test_failures = test_settings = test_streams = test_pictures = test_types_of_the_library = None

    def interrupted(self, wait, kind=KeyboardInterrupt):
        threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT)).start()
        started = time.monotonic()
        self.assertRaises(kind, wait)
        self.assertLess(time.monotonic() - started, 20)  # instead of hours

    def test_ctrl_c(self):
        self.settings.update(ENDLESS)
        for wait in (self.radar.frame, self.radar.cdf, lambda: next(self.radar.stream()), pulsekit3.wait_for_change):
            self.interrupted(wait)
        self.interrupted(lambda: asyncio.run(self.watch(self.radar.stream())))
        self.settings.reset()
        self.assertAlmostEqual(self.radar.frame().mean(), 50, 1)

    async def watch(self, stream):
        async for frame in stream:
            self.assertEqual(frame.shape, (256,))

    def test_other_threads_run_meanwhile(self):
        asyncio.run(self.watch(self.radar.stream(100, count=5)))
        self.settings.update(ENDLESS)
        rounds, waiting = 0, threading.Thread(target=self.assertRaises, args=(pulsekit3.Cancelled, self.radar.frame))
        waiting.start()
        while waiting.is_alive():  # ends since this loop goes on
            rounds += 1
            time.sleep(0.01)
            self.radar.cancel()
        self.assertGreater(rounds, 0)
        self.radar.close()
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            self.assertEqual({found[0].state for found in pool.map(lambda _: pulsekit3.list_radars(), range(3))}, {"ready"})


if __name__ == "__main__":
    faulthandler.dump_traceback_later(200, exit=True)  # tells where it hangs
    signal.signal(signal.SIGINT, signal.default_int_handler)  # also where it was started with signals ignored
    unittest.main()
