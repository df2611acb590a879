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

FLASH_SIZE = 16 << 20
ADDRESS, SIZE = 0x234000, 0x10000

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
]


class Programs(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)

    def run_tool(self, *arguments, **variables):
        environment = {**os.environ, 'XDG_RUNTIME_DIR': self.directory.name, 'PULSEKIT3_SIMULATED_TIME': 'deterministic', **variables}
        return subprocess.run([PULSEKIT, *arguments], env=environment, cwd=self.directory.name, capture_output=True, text=True, timeout=300)

    def test_rows(self):
        for line, code, error in ROWS:
            with self.subTest(line):
                result = self.run_tool(*(word.replace('\t', ' ') for word in line.split(' ')))
                self.assertEqual(result.returncode, code, result)
                self.assertIn(error, result.stderr)

    @unittest.skipUnless(FLASHROM, 'flashrom is not installed')
    def test_flashrom(self):
        """What it writes is what this library reads, by the simulator's bridge table and over libusb. The board has no chip, which
        would answer at the same chip select as the flash; pin 5 is its power."""
        image, back = Path(self.directory.name, 'image'), Path(self.directory.name, 'back')
        content = b'\xff' * ADDRESS + random.Random(1).randbytes(SIZE) + b'\xff' * (FLASH_SIZE - ADDRESS - SIZE)
        image.write_bytes(content)
        Path(self.directory.name, 'layout').write_text(f'{ADDRESS:x}:{ADDRESS + SIZE - 1:x} part\n')
        for arguments in ('-l layout -i part -N -w image', '-r back'):
            result = self.run_tool('--simulate', '--usb', FLASHROM, '-c', 'W25Q128.V', '-p',
                                   'ft2232_spi:type=2232H,gpiol0=C,gpiol1=H', *arguments.split(), PULSEKIT3_SIMULATED_CHIP='none', PULSEKIT3_SIMULATED_BRIDGE='FT2232H')
            self.assertEqual(result.returncode, 0, result)
        self.assertEqual(back.read_bytes(), content)
        for below, start, size in (((), 0, FLASH_SIZE), (('--usb', PULSEKIT), ADDRESS, SIZE)):
            back.unlink()
            result = self.run_tool('--simulate', *below, 'flash', 'read', str(start), str(size), '-o', 'back')
            self.assertEqual((result.returncode, result.stderr.count('remedy')), (0, 0), result)
            self.assertEqual(back.read_bytes(), content[start : start + size])


if __name__ == '__main__':
    unittest.main()
