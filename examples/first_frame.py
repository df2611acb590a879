"""Takes a frame with the one radar that is attached."""

import pulsekit3

with pulsekit3.open() as radar:
    radar.settings.PulsesPerStep = 40  # twice as many as usual: less noise
    levels = radar.frame()
    ranges = radar.ranges()
print(f"{len(levels)} levels from {ranges[0]:.2f} m to {ranges[-1]:.2f} m")
for metres, level in zip(ranges[::32], levels[::32]):
    print(f"{metres:5.2f} m {level:6.2f} %")
