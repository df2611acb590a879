"""Calibrates once and keeps the results in the flash of the board: the next time they are there at once."""

import pulsekit3

BLOCK = 8  # of the flash, 4 KiB each


def calibrated() -> None:
    with pulsekit3.open() as radar:
        print(f"as delivered: {radar.settings.SamplesPerSecond / 1e9:.3f} GS/s")
        try:
            radar.load_calibration(BLOCK)
            print(f"restored: {radar.settings.SamplesPerSecond / 1e9:.3f} GS/s")
        except pulsekit3.NothingStored:
            radar.calibrate(BLOCK)
            print(f"measured: {radar.settings.SamplesPerSecond / 1e9:.3f} GS/s")


calibrated()
calibrated()
