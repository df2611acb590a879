"""Tests a board as it comes from production; the exit code tells whether it passed."""

import sys

import pulsekit3

SCRATCH = 0xE000  # a block of the flash, given back as it was


def registers_keep(radar: pulsekit3.Radar) -> bool:
    before = radar.read_register(0x31, 3)
    kept = True
    for value in (0x000000, 0xFFFFFF, 0xA5C35A):
        radar.write_register(0x31, value, 3)
        kept = kept and radar.read_register(0x31, 3) == value
    radar.write_register(0x31, before, 3)
    return kept


def flash_keeps(radar: pulsekit3.Radar) -> bool:
    before = radar.flash.read(SCRATCH, 4096)
    pattern = bytes(range(256)) * 16
    radar.flash.write(SCRATCH, pattern)
    kept = radar.flash.read(SCRATCH, 4096) == pattern
    radar.flash.write(SCRATCH, before)
    return kept


def starts_again(radar: pulsekit3.Radar) -> bool:
    radar.power_off()
    radar.power_on()
    return radar.state == "open" and radar.settings.ChipID == 777


def levels_are_right(radar: pulsekit3.Radar) -> bool:
    levels: list[float] = radar.frame().tolist()
    return 40 < min(levels) < max(levels) < 60


def samples_in_time(radar: pulsekit3.Radar) -> bool:
    nominal: float = radar.settings.SamplesPerSecond
    return abs(radar.calibrate().samples_per_second / nominal - 1) < 0.05


TESTS = {
    "registers keep what is written": registers_keep,
    "flash keeps what is written": flash_keeps,
    "starts again after power off": starts_again,
    "levels lie around the middle": levels_are_right,
    "samples at the right rate": samples_in_time,
}
with pulsekit3.open() as radar:
    print("board", radar.board.information.name)
    failures = 0
    for name, passes in TESTS.items():
        passed = passes(radar)
        print("ok  " if passed else "FAIL", "", name)
        failures += not passed
print(f"{failures} of {len(TESTS)} failed")
sys.exit(failures > 0)
