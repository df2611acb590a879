"""A mistake in a description is reported with its file and line, and nothing is generated from it."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

GENERATOR = Path(__file__).resolve().parents[2] / 'generator'
sys.path.insert(0, str(GENERATOR))
sys.dont_write_bytecode = True

import description

SOUND = '''models = [
  { name = "Chip", chip_id = 7 },
]
source = "src/chip/{model}"
header = "chip.h"
prefix = "{model}_"
functions = [
  { name = "measure", takes = "set", arguments = ["float"], returns = "int" },
]
registers = [
  { address = 0x10, bytes = 1 },
  { address = 0x11, bytes = 2 },
]
table = [
  { name = "Low", kind = "setting", type = "int", range = [0, 15], auto = 3, register = 0x10, bits = [3, 0] },
  { name = "High", kind = "setting", type = "int", range = [0, 15], auto = 0, register = 0x10, bits = [7, 4] },
  { name = "Result", kind = "readout", type = "int", range = [0, 65535], register = 0x11 },
  { name = "Factor", kind = "setting", type = "float", range = [0, 1], auto = 0.5 },
  { name = "Mode", kind = "setting", type = "enum", items = ["Off", "On"], auto = "Off" },
  { name = "Product", kind = "computed", type = "int", range = [0, 15], auto = "Low * Factor" },
  { name = "Now", kind = "live", type = "int", range = [0, 9], read = "measure(Factor)" },
  { name = "Start", kind = "action", strobe = 20 },
]
'''

LOW, HIGH, RESULT, FACTOR, MODE, PRODUCT, NOW, START = range(15, 23)

# (what is replaced, by what, the line that is at fault, what the message says)
BROKEN = [
    # Names
    ('"High"', '"Low"', HIGH, 'duplicate name "Low"'),
    ('"High"', '"9High"', HIGH, '"9High" is no name'),
    ('{ address = 0x11', '{ address = 0x10', 12, 'duplicate register 0x10'),
    ('"Low * Factor"', '"Low * Faktor"', PRODUCT, 'unknown name "Faktor"'),
    ('"measure(Factor)"', '"mesure(Factor)"', NOW, 'unknown function "mesure"'),
    ('strobe = 20', 'stobe = 20', START, 'has no "stobe"'),
    ('source =', 'sauce =', 4, 'unknown key "sauce"'),
    # Kinds and types
    ('kind = "live"', 'kind = "alive"', NOW, 'unknown kind "alive"'),
    ('type = "float"', 'type = "real"', FACTOR, 'unknown type "real"'),
    ('[0, 9], read', '[0, 9], auto = 1, read', NOW, 'is a live and has no "auto"'),
    ('strobe = 20', 'strobe = 20, nothing = true', START, 'has 2 of'),
    ('strobe = 20', 'strobe = 128', START, 'outside 0..127'),
    ('takes = "set"', 'takes = "chip"', 8, 'takes neither set nor owner'),
    ('arguments = ["float"]', 'arguments = ["text"]', 8, 'none of the types'),
    ('returns = "int"', 'returns = "void"', 8, 'returns none of'),
    # Ranges, items and automatic values
    ('range = [0, 1]', 'range = [1, 0]', FACTOR, 'empty range'),
    ('range = [0, 15], auto = 3', 'range = [-1, 15], auto = 3', LOW, 'is outside 0..'),
    ('auto = 3', 'auto = 16', LOW, 'outside its range'),
    ('auto = 3', 'auto = 0.5', LOW, 'not of its type'),
    (', auto = 3', '', LOW, 'has no automatic value'),
    ('items = ["Off", "On"]', 'items = []', MODE, 'has no items'),
    # Registers and fields
    ('bits = [7, 4]', 'bits = [6, 3]', HIGH, 'field "High" overlaps "Low" in register 0x10'),
    ('bits = [7, 4]', 'bits = [8, 5]', HIGH, 'field "High" is wider than register 0x10 of 1 bytes'),
    ('bits = [7, 4]', 'bits = [4, 7]', HIGH, 'are not [highest, lowest]'),
    ('bits = [7, 4]', 'bits = [6, 4]', HIGH, 'the range of "High" is wider than its field of 3 bits'),
    (', bits = [7, 4]', '', HIGH, 'has a register but no bits'),
    ('register = 0x11', 'register = 0x12', RESULT, 'unknown register'),
    ('], auto = 0.5', '], auto = 0.5, register = 0x11, bits = [3, 0]', FACTOR, 'can\'t be held in a register'),
    ('bytes = 2', 'bytes = 9', 12, 'has 9 bytes, not 1 to 8'),
    ('address = 0x11', 'address = 0x80', 12, 'outside 0..0x7f'),
    (', register = 0x11', '', RESULT, 'is not an integer in a register'),
    ('  { address = 0x11, bytes = 2 },', '  { address = 0x11, bytes = 2 },\n  { address = 0x12, bytes = 2 },', 13,
     'register 0x12 holds nothing'),
    # Formulas
    ('"Low * Factor"', '"Product + 1"', PRODUCT, 'cycle: Product reads Product'),
    ('auto = 0.5', 'auto = "Product / 2"', FACTOR, 'cycle: Factor reads Product reads Factor'),
    ('"Low * Factor"', '"Low *"', PRODUCT, 'is not an expression'),
    ('"Low * Factor"', '"Low ** 2"', PRODUCT, 'not part of the formula language'),
    ('"Low * Factor"', '"Factor << 1"', PRODUCT, 'shifts a real number'),
    ('"Low * Factor"', '"1 if Low else 2"', PRODUCT, 'is not a comparison'),
    ('"Low * Factor"', '"1 if Mode == \'Onn\' else 2"', PRODUCT, '"Onn" is not an item'),
    ('auto = "Off"', 'auto = "Low"', MODE, 'returns none of item'),
    ('"measure(Factor)"', '"measure()"', NOW, 'takes 1 arguments, not 0'),
    ('returns = "int"', 'returns = "code"', NOW, 'returns none of int'),
    ('auto = 3', 'auto = 3, then = "Stop"', LOW, 'unknown action "Stop"'),
    ('auto = 0.5', 'auto = 0.5, then = "Start"', FACTOR, 'a write that it does not have'),
    ('"Low * Factor"', '"Low * 9223372036854775808"', PRODUCT, 'is too large'),
    ('"Low * Factor"', '"Low * 1e999"', PRODUCT, 'is too large'),
    ('"Low * Factor"', '"9223372036854775807 + chip_id"', PRODUCT, 'is too large'),
    ('"Low * Factor"', '"' + '1 + ' * 200 + '1"', PRODUCT, 'more than 100 operations are nested'),
    # What would not compile
    ('["Off", "On"]', '["Off", "\\u0016"]', MODE, "'\\x16' has characters outside printable ASCII"),
    ('["Off", "On"]', '["Off", "(invalid symbol)"]', MODE, 'has no items'),
    ('source = "', 'source = "\\"', 4, '"source" is no path'),
    ('prefix = "', 'prefix = "2', 6, 'can\'t begin a name'),
    ('chip_id = 7', 'chip_id = 9223372036854775808', 2, 'not a name with an integer of 64 bits'),
    ('chip_id = 7', 'Low = 7', LOW, 'a constant of the model too'),
    ('kind = "action", strobe = 20', 'kind = "computed", type = "int", range = [0, 1], auto = 0', 14, 'no action'),
    # The file
    ('kind = "live"', 'kind = ["live"]', NOW, '"kind" is not a text'),
    ('strobe = 20', 'strobe = 0x' + 'f' * 9000, START, 'a number outside 0..127'),
    ('auto = 3', 'auto = ' + '3' * 5000, LOW, 'too many digits'),
    ('auto = 0.5', 'auto = ' + '[' * 3000, FACTOR, 'nested too deeply'),
    ('auto = 0.5', 'auto' + '.a' * 3000 + ' = 0.5', FACTOR, 'nested too deeply'),
    ('{ name = "Chip"', '{ nam = "Chip"', 2, 'a model has a name'),
    ('range = [0, 1]', 'range = [0, inf]', FACTOR, 'no range of two numbers'),
    ('auto = 3', 'auto =', LOW, 'not TOML'),
    ('  { name = "High"', '{ name = "Spare", kind = "action", nothing = true }, { name = "High"', 14,
     'each row takes one line'),
    ('"Factor", kind', '"Factor", only = "Chop", kind', FACTOR, 'unknown model "Chop"'),
]


class Errors(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = Path(directory.name) / 'chip.toml'

    def load(self, text, explained=False):
        self.path.write_text(text, encoding='utf-8')
        return description.load(self.path, 'Chip', explained)

    def test_the_sound_description_loads(self):
        self.assertEqual(7, len(self.load(SOUND).variables))

    def test_what_is_to_be_explained_has_a_help_text(self):
        with self.assertRaisesRegex(description.DescriptionError, f':{LOW}: "Low" has no help'):
            self.load(SOUND, explained=True)

    def test_each_mistake_names_its_line(self):
        for old, new, line, message in BROKEN:
            with self.subTest(replacing=old, by=new):
                self.assertIn(old, SOUND)
                with self.assertRaises(description.DescriptionError) as raised:
                    self.load(SOUND.replace(old, new, 1))
                self.assertTrue(str(raised.exception).startswith(f'{self.path}:{line}: '), str(raised.exception))
                self.assertIn(message, str(raised.exception))

    def test_the_command_fails_and_writes_nothing(self):
        self.path.write_text(SOUND.replace('"High"', '"Low"', 1), encoding='utf-8')
        out = self.path.parent / 'out'
        command = [sys.executable, '-B', GENERATOR / 'describe.py', 'sources', self.path, '--model', 'Chip', '--out', out]
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual(1, result.returncode)
        self.assertEqual(f'{self.path}:{HIGH}: duplicate name "Low"\n', result.stderr)
        self.assertFalse(out.exists())


if __name__ == '__main__':
    unittest.main()
