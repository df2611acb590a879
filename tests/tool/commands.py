#!/usr/bin/env python3
"""Runs pulsekit on simulated radars: a row a case. usage: commands.py PULSEKIT"""
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PULSEKIT = os.path.abspath(sys.argv.pop(1))

# command, exit code, pattern that standard output holds (or, of a failure, standard error)
ROWS = [
    ('list', 0, r'1  SIM00001  QTX-K245  QTX3701  ready'),
    ('info', 0, r'chip id +777'),
    ('settings', 0, r'PulsesPerStep +20 pulses +automatic +0 \.\. 16777215 pulses'),
    ('settings SampleDelay', 0, r'(?s)^SampleDelay\n.*range +0 \.\. 1 s.*follows +SampleDelayToReference.*followed by +SDCT'),
    ('settings --fixed', 0, r'^$'),
    ('settings nothing', 1, r'remedy: '),
    ('set PulsesPerStep=0x28 SampleDelay=1.5ns', 0, r'(?s)PulsesPerStep  0x28 +20 \w+ +40 .*SDMT +2 +5 '),
    ('get PulsesPerStep SampleDelay', 0, r'^PulsesPerStep=40\nSampleDelay=1.5e-09$'),
    ('--fresh get PulsesPerStep', 0, '^20$'),
    ('set PulsesPerStep=4O', 2, r'not its unit\nremedy: '),
    ('set PulsesPerStep=1ns', 2, r'not its unit'),
    ('set PulsesPerStep=-1', 2, r'remedy: take one from 0 to 16777215'),
    ('set SampleDelay=2', 2, r'out of range\nremedy: take one from 0 .. 1 s'),
    ('set PulsesPerStep', 2, r'no assignment'),
    ('set Pulses=1', 1, r'0x503: Unknown variable - Pulses\n'),
    ('set SPIClockFrequency=30', 2, r'it has 30MHz, 15MHz'),
    ('set SPIClockFrequency=30mhz', 0, r'15MHz  30MHz'),
    ('get SPIClockFrequency', 0, '^30MHz$'),
    ('reset PulsesPerStep', 0, r'40 pulses +20 pulses +automatic'),
    ('get SampleDelay', 0, '^1.5e-09$'),
    ('reset', 0, r'1.5 ns +1.3343 ns'),
    ('reset', 0, r'^$'),
    ('action', 0, r'MeasureAll +\w+ +Calibrate'),
    ('action Nothing', 1, r'0x504'),
    ('--trace action Nothing', 1, r'at: findAction_ByName in'),
    ('--radar SIM get ChipID', 0, '^777$'),
    ('--radar 2 list', 0, 'SIM00001'),
    ('--radar 2 get ChipID', 2, 'remedy: attached are 1: SIM00001'),
    ('set Iterations=5 FrameStitch=2', 0, r'SamplersPerFrame +256 +512 +read-only'),
    ('save one.set', 0, r'^$'),
    ('diff one.set', 0, r'^$'),
    ('save nowhere/one.set', 1, r'remedy: check that the directory exists'),
    ('store', 0, r'^$'),
    ('reset', 0, r'Iterations +5 +10'),
    ('diff one.set', 0, r'Iterations +5 +auto\n'),
    ('restore', 0, r'Iterations +10 +5 +fixed'),
    ('set FrameStitch=3', 0, r'512 +768'),
    ('load one.set', 0, r'FrameStitch +3 +2 +fixed'),
    ('load bad.set', 1, r'bad.set:3: Iterations "1O"'),
    ('load strange.set', 1, r'unknown setting Iteration, near is Iterations\n.*strange.set: saved from a chip with ID 0x0308'),
    ('get Iterations', 0, '^5$'),
    ('load strange.set --force', 0, r'PulsesPerStep +20 pulses +7'),
    ('load commands.txt', 1, r'no settings file'),
    ('flash write 0x1fff0 noise.bin', 0, r'8000 bytes at 0x01fff0, 3 blocks written, verified'),
    ('flash read 0x1fff0 8000 -o back.bin', 0, r'^$'),
    ('flash read 0x1fff8 16', 0, r'^01fff8  08 09 0a'),
    ('flash write 0x1fff0 noise.bin', 0, r'0 blocks written'),
    ('flash erase 0x20000 0x1000', 0, r'erased, verified'),
    ('flash read 0x20000 4', 0, r'ff ff ff ff'),
    ('flash erase 0x20001 0x1000', 2, r'multiples of 0x1000'),
    ('flash read 0xffffff 2', 2, r'not within the flash'),
    ('flash write 0', 2, r'either FILE or --bytes'),
    ('flash write 0 --bytes 0g', 2, r'not hexadecimal'),
    ('board show', 0, r'name  QTX-K245'),
    ('board program --name QTX-K225 --yes', 1, r'programmed before: QTX-K245'),
    ('board program --name K225', 2, r'no type of board'),
    ('register write 0x31 0x123456 --bytes 3', 0, r'^0x123456$'),
    ('register read 0x31 --bytes 3', 0, r'^0x000007$'),
    ('register write 0x31 256', 2, r'out of range'),
    ('pin 7=1', 0, r'^1$'),
    ('pin 7=2', 2, r'PIN=in'),
    ('pin 99', 1, r'0x106'),
    ('spi 1 9f --read 3', 0, r'^ef 40 18$'),
    ('log decode noise.bin', 1, r'no binary frame log'),
    ('simulate scene.toml', 0, r'^$'),
    ('simulate scene.toml', 1, r'exists already'),
    ('--simulate=scene.toml list', 0, r'SIM00001'),
    ('lst', 2, 'did you mean list'),
    ('get', 2, 'pulsekit get --help'),
    ('--simulate=nowhere.toml list', 1, 'nowhere.toml'),
]

# command, what the JSON must hold: a path of keys and the value there
JSON_ROWS = [
    ('list', (0, 'serial'), 'SIM00001'),
    ('info', ('chip id',), '777'),
    ('settings FrameStitch', (0, 'min'), 1),
    ('get SampleDelayToReference', ('SampleDelayToReference',), 0.0),
    ('set DACStep=16', ('moved', 0, 'name'), 'DACStepFine'),
    ('action', (0, 'name'), 'InterfaceReset'),
]

FILES = {
    'bad.set': '; ChipID=0x0309\n[Pulsekit variables]\nIterations=1O\n',
    'strange.set': '; ChipID=0x0308\n[Pulsekit variables]\nIteration=3\nPulsesPerStep=7\nRadarModulePower=0\n',
    'commands.txt': 'Iterations=3\n',
}


class Commands(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.environment = {**os.environ, 'XDG_RUNTIME_DIR': self.directory.name, 'LC_ALL': 'C.UTF-8'}

        # What rows need to be there.
        self.noise = bytes(i % 251 for i in range(8000))
        Path(self.directory.name, 'noise.bin').write_bytes(self.noise)
        for name, text in FILES.items():
            Path(self.directory.name, name).write_text(text)

    def run_tool(self, command):
        simulate = [] if '--simulate' in command else ['--simulate']
        return subprocess.run([PULSEKIT, *simulate, *command.split()], env=self.environment, cwd=self.directory.name,
                              capture_output=True, text=True, timeout=60)

    def test_rows(self):
        for command, code, pattern in ROWS:
            with self.subTest(command):
                result = self.run_tool(command)
                text = result.stderr if code else result.stdout
                self.assertEqual(result.returncode, code, result)
                self.assertTrue(re.search(pattern, text.rstrip('\n') if '$' in pattern else text), result)
                if code:
                    self.assertIn('remedy: ', result.stderr)
                    self.assertEqual(result.stdout, '')
        self.assertEqual(Path(self.directory.name, 'back.bin').read_bytes(), self.noise)
        self.assertEqual([name for name in os.listdir(self.directory.name) if '.part' in name], [])

    def test_json(self):
        for command, path, value in JSON_ROWS:
            with self.subTest(command):
                data = json.loads(self.run_tool('--json ' + command).stdout)
                for key in path:
                    data = data[key]
                self.assertEqual(data, value)


if __name__ == '__main__':
    unittest.main()
