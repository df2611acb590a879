#!/usr/bin/env python3
"""Runs pulsekit on simulated radars: a row a case. usage: commands.py rows|json|ctrl_c|watched_list|terminal PULSEKIT

On Windows, under Wine, without terminals, signals and gnuplot: commands.py rows|json|watched_list WINE PULSEKIT.exe"""
import json
import os
import pty
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import numpy

PULSEKIT = [os.path.abspath(word) for word in sys.argv[2:]]
WINDOWS = len(PULSEKIT) > 1
sys.argv[1:] = ['Commands.test_' + sys.argv[1]]

# command, exit code, pattern that standard output holds (or, of a failure, standard error)
ROWS = [
    ('list', 0, r'1  SIM00001  QTX-K245  QTX3701  ready'),
    ('info', 0, r'chip id +777'),
    ('settings', 0, r'PulsesPerStep +20 pulses +automatic +0 \.\. 16777215 pulses'),
    ('settings SampleDelay', 0, r'(?s)^SampleDelay\n.*range +0 \.\. 1 s.*follows +SampleDelayToReference.*followed by +SDCT'),
    ('settings --fixed', 0, r'^$'),
    ('settings nothing', 1, r'remedy: '),
    ('set PulsesPerStep=0x28 SampleDelay=1.5ns', 0, r'(?s)PulsesPerStep  0x28 +20 \w+ +40 .*SDMT +2 \w+ +5 '),
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
    ('set Iterations=5 FrameStitch=2', 0, r'SamplersPerFrame +256 \w+ +512 \w+ +read-only'),
    ('save one.set', 0, r'^$'),
    ('diff one.set', 0, r'^$'),
    ('save nowhere/one.set', 1, r'remedy: check that the directory exists'),
    ('store', 0, r'^$'),
    ('reset', 0, r'Iterations +5 \w+ +10 '),
    ('diff one.set', 0, r'Iterations +5 +auto\n'),
    ('restore', 0, r'Iterations +10 \w+ +5 \w+ +fixed'),
    ('set FrameStitch=3', 0, r'512 \w+ +768 '),
    ('load one.set', 0, r'FrameStitch +3 sweeps +2 sweeps +fixed'),
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
    ('--fresh doctor', 0, r'(?s)ok +radar SIM00001: opens.*ok +flash: two reads agree.*ok +chip: registers keep.*ok +frame: levels'),
    ('capture -n 3 -o three.csv', 0, r'^$'),
    ('capture -n 2', 0, r'^frame,time_s,flags,0\.2,[^\n]*\n0,0,0,[^\n]*\n1,'),
    ('capture -n 4 --raw -o four.log', 0, r'^$'),
    ('log decode four.log', 0, r'^frame,time_s,0,1,2'),
    ('log decode four.log -o four.npy', 0, r'^$'),
    ('capture -n 5 --rate 200 -o five.npy --plot five.svg', 0, r'^$'),
    ('capture --plot --plot six.svg', 0, r'(?s)A frame of SIM00001 .*[\u2801-\u28ff].*\n +0\.2 .* 2\.3'),
    ('capture -o five.txt', 2, r'end the name in .csv, .npy or .log'),
    ('capture --plot five.jpg', 2, r'.svg or .png'),
    ('capture -n -1', 2, r'-n "-1"'),
    ('watch', 2, r'needs a terminal'),
    ('set ZoomMin=45 ZoomMax=55 DACStep=64', 0, r'DACMin +0 '),
    ('cdf -o cdf.npy', 0, r'^$'),
    ('set DACMin=5000', 0, r'DACMin +5000 +3685 codes +5000'),
    ('cdf', 1, r'pulsekit reset DACMin'),
    ('reset', 0, r'DACMin'),
    ('suggest --range 10m --rate 10', 0, r'(?s)FrameStitch +10 .*PRFDivide +8 '),
    ('suggest --range 10m --rate 10 --apply', 0, r'FrameStitch +10 +1 sweep +10 sweeps'),
    ('geometry', 0, r'(?s)range axis +0.2 m to 10.8\d* m.*unambiguous range +11.99'),
    ('suggest --range 100m', 1, r'a frame ends at most'),
    ('suggest --range 1m --rate 5000', 0, r'(?s)BytesPerCounter +2 .*CounterMSb +15 .*Iterations +\d '),
    ('suggest --range 1m --rate 20000', 1, r'too fast: reading 1 sweep out'),
    ('calibrate --store 1', 0, r'SamplesPerSecond +36 GHz'),
    ('reset', 0, r'SamplesPerSecond'),
    ('calibrate --load 1', 0, r'SamplesPerSecond +36 GHz'),
    ('--trace calibrate --load 1', 0, r'^$'),
    ('calibrate --load 2', 1, r'ERROR 0x5'),
    ('calibrate --store 15', 2, r'holds the settings'),
    ('completion', 0, r'(?s)flash read.*complete -o default -F _pulsekit pulsekit'),
    ('completion zsh', 0, r"'capture:Take frames"),
    ('completion fish', 0, r"-n '__fish_seen_subcommand_from flash; and __fish_seen_subcommand_from read' -l output -r"),
    ('lst', 2, 'did you mean list'),
    ('get', 2, 'pulsekit get --help'),
    ('--simulate=nowhere.toml list', 1, 'nowhere.toml'),
    # More radars, and some that lack something.
    ('--simulate=many.toml list', 0, r'1  FIRST .*ready\n2  SECONDA  QTX-K265  QTX3702  ready\n3  SECONDB .*no board recognised'),
    ('--simulate=many.toml capture', 2, r'several radars are attached: 1: FIRST \(ready\), 2: SECONDA'),
    ('--simulate=many.toml --radar sec*a get Chip', 0, '^QTX3702$'),
    ('--simulate=many.toml --radar THIRD doctor', 0, r'(?s)chip QTX3400.*hint   frame: '),
    ('--simulate=part.toml save one.set', 1, r'none of the attached radars can be used: 1: BARE \(no chip recognised\), 2: \? '),
    ('--simulate=part.toml flash read 0 2', 0, r'ff ff'),
    ('diff one.set', 0, 'FrameStitch'),
]

# command, what the JSON must hold: a path of keys and the value there
JSON_ROWS = [
    ('list', (0, 'serial'), 'SIM00001'),
    ('info', ('chip id',), '777'),
    ('settings FrameStitch', (0, 'min'), 1),
    ('get SampleDelayToReference', ('SampleDelayToReference',), 0.0),
    ('set DACStep=16', ('moved', 0, 'name'), 'DACStepFine'),
    ('action', (0, 'name'), 'InterfaceReset'),
    ('doctor', (0, 'good'), True),
    ('--simulate=part.toml doctor', (5, 'finding'), 'chip Unknown'),
    ('--simulate=many.toml --radar FIFTH doctor', (1, 'finding'), 'no attached radar is called "FIFTH"'),
    ('capture -n 2', ('frames', 1, 'number'), 1),
    ('flash read 0 2', ('bytes',), 'ff ff'),
    ('board show', ('name',), 'QTX-K245'),
]

FILES = {
    'bad.set': '; ChipID=0x0309\n[Pulsekit variables]\nIterations=1O\n',
    'strange.set': '; ChipID=0x0308\n[Pulsekit variables]\nIteration=3\nPulsesPerStep=7\nRadarModulePower=0\n',
    'commands.txt': 'Iterations=3\n',
    'many.toml': '[[radar]]\nserial = "FIRST"\n[[radar]]\nserial = "SECOND"\nbridge = "FT2232H"\nboard = "QTX-K265"\n'
                 'chip = "QTX3702"\n[[radar]]\nserial = "THIRD"\nchip = "QTX3400"\n',
    'part.toml': '[[radar]]\nserial = "BARE"\nchip = "none"\n[[radar]]\nserial = "TAKEN"\nheld = true\n',
}


class Commands(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.environment = {**os.environ, 'XDG_RUNTIME_DIR': self.directory.name, 'LC_ALL': 'C.UTF-8',
                            'PULSEKIT3_SIMULATED_TIME': 'deterministic'}

        # What rows need to be there.
        self.noise = bytes(i % 251 for i in range(8000))
        Path(self.directory.name, 'noise.bin').write_bytes(self.noise)
        for name, text in FILES.items():
            Path(self.directory.name, name).write_text(text)

    def path(self, name):
        return os.path.join(self.directory.name, name)

    def load(self, name):
        return numpy.load(self.path(name))

    def run_tool(self, command):
        simulate = [] if '--simulate' in command else ['--simulate']
        return subprocess.run([*PULSEKIT, *simulate, *command.split()], env=self.environment, cwd=self.directory.name,
                              capture_output=True, text=True, timeout=60)

    def test_rows(self):
        for command, code, pattern in ROWS:
            if WINDOWS:
                command = re.sub(r' --plot \w+\.svg', '', command)
            with self.subTest(command):
                result = self.run_tool(command)
                text = result.stderr if code else result.stdout
                self.assertEqual(result.returncode, code, result)
                self.assertTrue(re.search(pattern, text.rstrip('\n') if '$' in pattern else text), result)
                if code:
                    self.assertIn('remedy: ', result.stderr)
                    self.assertEqual(result.stdout, '')
        self.assertEqual(self.load('five.npy').shape, (5, 512))
        self.assertAlmostEqual(self.load('five.npy').mean(), 50, 1)
        self.assertEqual((self.load('four.npy').shape, self.load('four.npy').dtype), ((4, 512), numpy.uint32))
        self.assertEqual(numpy.loadtxt(self.path('three.csv'), delimiter=',', skiprows=1).shape, (3, 515))
        self.assertGreater(self.load('cdf.npy')[0].mean(), self.load('cdf.npy')[-1].mean())
        self.assertTrue(WINDOWS or '<svg' in Path(self.path('six.svg')).read_text())
        self.assertEqual(Path(self.directory.name, 'back.bin').read_bytes(), self.noise)
        self.assertEqual([name for name in os.listdir(self.directory.name) if '.part' in name], [])

    def test_json(self):
        for command, path, value in JSON_ROWS:
            with self.subTest(command):
                data = json.loads(self.run_tool('--json ' + command).stdout)
                for key in path:
                    data = data[key]
                self.assertEqual(data, value)

    def start(self, command, **streams):
        environment = {**self.environment, 'PULSEKIT3_SIMULATED_TIME': 'real'}
        return subprocess.Popen([*PULSEKIT, '--simulate', *command.split()], env=environment, cwd=self.directory.name,
                                text=True, **streams)

    def test_ctrl_c(self):
        """Ends a capture with its files complete; only one that had no end was not cut short."""
        for count, code in ((0, 0), (1000000, 1)):
            tool = self.start(f'capture -n {count} -o cut.npy', stderr=subprocess.PIPE)
            while not any(name.startswith('cut.npy.part') and os.path.getsize(self.path(name)) > 10000
                          for name in os.listdir(self.directory.name)):
                self.assertIsNone(tool.poll())
                time.sleep(0.01)
            tool.send_signal(signal.SIGINT)
            error = tool.communicate(timeout=20)[1]
            self.assertEqual(tool.returncode, code, error)
            self.assertEqual(self.load('cut.npy').shape[1], 256)
            os.remove(self.path('cut.npy'))
            self.assertEqual([name for name in os.listdir(self.directory.name) if 'cut' in name], [])

        # No block of the flash is left half-written.
        data = self.noise * 40
        Path(self.path('long.bin')).write_bytes(data)
        tool = self.start('flash write 0 long.bin', stderr=subprocess.PIPE)
        time.sleep(1)
        tool.send_signal(signal.SIGINT)
        end = int(re.search('interrupted before 0x(.*)', tool.communicate(timeout=20)[1])[1], 16)
        self.run_tool(f'flash read 0 {len(data)} -o kept.bin')
        self.assertEqual(Path(self.path('kept.bin')).read_bytes(), data[:end] + b'\xff' * (len(data) - end))

    def test_watched_list(self):
        Path(self.path('plug.toml')).write_text('unplugged_at = 1.0\nplugged_at = 1.5\n')
        self.environment['PULSEKIT3_SCENE'] = self.path('plug.toml')
        tool = self.start('--json list --watch', stdout=subprocess.PIPE)
        self.addCleanup(tool.kill)
        self.addCleanup(tool.stdout.close)
        self.assertEqual([json.loads(tool.stdout.readline())['change'] for _ in range(3)], ['attached', 'removed', 'arrived'])
        tool.send_signal(signal.SIGINT)
        self.assertEqual(tool.wait(20), 0)

    def test_terminal(self):
        """Progress with the time that is left, live pictures, colours: on a terminal only."""
        for command, pattern in (('capture -n 50 --rate 25 -o slow.npy', r'capturing \[#+\.*\] \d+ %, \d+ of 50, \d+ s left'),
                                 ('watch -n 5', r'(?s)\x1b\[H.*Radar SIM00001, 5 frames.*[\u2801-\u28ff].*\x1b\[\?25h'),
                                 ('cdf', r'measuring \[#*\.+\] \d+ %, \d+ s left'), ('set ZoomMin=40 ZoomMax=60', 'ZoomMin'),
                                 ('list', r'\x1b\[1m +serial'), ('capture', r'A frame of SIM00001')):
            with self.subTest(command):
                main, side = pty.openpty()
                tool = self.start(command, stdin=side, stdout=side, stderr=side)
                os.close(side)
                text = b''
                try:
                    while part := os.read(main, 65536):
                        text += part
                except OSError:  # the end, on Linux
                    pass
                os.close(main)
                self.assertEqual(tool.wait(20), 0, text)
                self.assertRegex(text.decode(), pattern)


if __name__ == '__main__':
    unittest.main()
