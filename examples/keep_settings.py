"""Sets a group of settings, keeps them in a file, and has them again after a reset. usage: keep_settings.py [FILE]"""

import sys

import pulsekit3

file = sys.argv[1] if len(sys.argv) > 1 else "radar.set"
with pulsekit3.open() as radar:
    for name in radar.settings.update(PulsesPerStep=40, SampleDelay=4e-9, SPIClockFrequency="30MHz"):
        print(name, "has moved")
    radar.save(file)
    radar.settings.reset()
    print(f"after a reset: {radar.settings.PulsesPerStep} pulses a step")
    radar.load(file)
    print(f"from the file: {radar.settings.PulsesPerStep} pulses a step")
