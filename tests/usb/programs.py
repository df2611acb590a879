#!/usr/bin/env python3
"""Programs of others on the simulated radars' USB. usage: programs.py PULSEKIT [FLASHROM]"""
import os
import random
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PULSEKIT = os.path.abspath(sys.argv[1])
FLASHROM = sys.argv[2] if len(sys.argv) > 2 else ''
del sys.argv[1:]

FLASH_SIZE, BLOCK = 16 << 20, 4096
WRITTEN = range(0x234000, 0x244000)

# arguments, exit code, what standard error holds
ROWS = [
    ('--usb true', 0, ''),
    ('--simulate --usb sh -c exit\t7', 7, ''),
    ('--simulate --usb sh -c kill\t-TERM\t$$', 128 + signal.SIGTERM, ''),
    ('--usb sh -c kill\t-INT\t$PPID;\tsleep\t9', 128 + signal.SIGINT, ''),
    ('--simulate --usb no-such-program', 1, 'no-such-program: No such file or directory\nremedy: '),
    ('--usb', 2, 'without a command'),
    ('list --usb true', 2, 'not expected: list'),
    ('--simulate=nowhere.toml --usb true', 1, 'nowhere.toml'),
    (f'--simulate=plug.toml --usb {PULSEKIT} capture -n 0 -o x.csv', 1, 'The bridge is gone'),
]


class Programs(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)

    def run_tool(self, *arguments, **variables):
        environment = {**os.environ, 'XDG_RUNTIME_DIR': self.directory.name, 'PULSEKIT3_SIMULATED_TIME': 'deterministic', **variables}
        return subprocess.run([PULSEKIT, *arguments], env=environment, cwd=self.directory.name, capture_output=True, text=True, timeout=300)

    def test_rows(self):
        Path(self.directory.name, 'plug.toml').write_text('unplugged_at = 1.0\n')
        for line, code, error in ROWS:
            with self.subTest(line):
                result = self.run_tool(*(word.replace('\t', ' ') for word in line.split(' ')))
                self.assertEqual(result.returncode, code, result)
                self.assertIn(error, result.stderr)

    def test_slow_frames(self):
        """One by one, for longer than the bridge may be silent."""
        self.run_tool('--simulate', 'set', 'PulsesPerStep=100')
        result = self.run_tool('--simulate', '--usb', PULSEKIT, 'capture', '-n', '140', '-o', 'x.csv', PULSEKIT3_SIMULATED_TIME='real')
        self.assertIn('140 frames', result.stderr, result)

    @unittest.skipUnless(FLASHROM, 'flashrom is not installed')
    def test_flashrom(self):
        """A random image, of which only a part differs from what is there: 16 MiB take minutes. What it writes is what this library
        reads, by the simulator's bridge table and over libusb. The board has no chip, which would answer at the same chip select as
        the flash; pin 5 is its power."""
        image, back, kept = (Path(self.directory.name, name) for name in ('image', 'back', 'pulsekit/simulated-flash-QTX-K245'))
        content = random.Random(1).randbytes(FLASH_SIZE)
        image.write_bytes(content)
        blocks = (at.to_bytes(3, 'little') + content[at : at + BLOCK] for at in range(0, FLASH_SIZE, BLOCK) if at not in WRITTEN)
        kept.parent.mkdir()
        kept.write_bytes(b'QTX-K245'.ljust(32, b'\0').ljust(256, b'\xff') + b''.join(blocks))
        result = self.run_tool('--simulate', '--usb', FLASHROM, '-c', 'W25Q128.V', '-p', 'ft2232_spi:type=2232H,gpiol0=C,gpiol1=H', '-w', 'image',
                               PULSEKIT3_SIMULATED_CHIP='none', PULSEKIT3_SIMULATED_BRIDGE='FT2232H')
        self.assertIn('VERIFIED', result.stdout, result)
        for below in (), ('--usb', PULSEKIT):
            result = self.run_tool('--simulate', *below, 'flash', 'read', '0', str(FLASH_SIZE), '-o', 'back')
            self.assertEqual((result.returncode, result.stderr.count('remedy')), (0, 0), result)
            self.assertEqual(back.read_bytes(), content)


if __name__ == '__main__':
    unittest.main()
