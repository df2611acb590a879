"""The descriptions of the bridge and of the module boards, checked against literal tables."""
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / 'generator'))
sys.dont_write_bytecode = True

import description

BRIDGE_SYMBOLS = [
    '(invalid symbol)', 'SPIClockFrequency', '30MHz', '15MHz', '10MHz', '7.5MHz', '6MHz', '5MHz', '4.28MHz',
    'InterfaceReset', 'SPIToggleSlaveSelectEnable',
]


def variable_rows(described):
    return [(v.name, '|'.join(v.flags), v.items or v.range, v.auto) for v in described.variables]


class Boards(unittest.TestCase):
    def test_bridge(self):
        bridge = description.load(ROOT / 'descriptions' / 'FTx232H.toml', 'FTx232H')
        self.assertEqual(BRIDGE_SYMBOLS, bridge.symbols)
        self.assertEqual([
            ('SPIClockFrequency', 'VAR_FLAG_ENUM', BRIDGE_SYMBOLS[2:9], '15MHz'),
            ('SPIToggleSlaveSelectEnable', 'VAR_FLAG_INT', [0, 1], 1),
        ], variable_rows(bridge))
        self.assertEqual(['InterfaceReset'], [action.name for action in bridge.actions])

    def test_modules(self):
        for driver in ('QTX_K2x5', 'QTX_K265'):
            module = description.load(ROOT / 'descriptions' / 'QTX_K2x5.toml', driver)
            self.assertEqual([
                ('BoardVersion', 'VAR_FLAG_ENUM|VAR_FLAG_READ_ONLY', ['unknown', driver], driver),
                ('RadarModulePower', 'VAR_FLAG_ENUM', ['PowerOff', 'PowerOn'], 'PowerOn'),
                ('MCLK_RFBoardSelect', 'VAR_FLAG_ENUM', ['OnBoard', 'External'], 'OnBoard'),
                ('AddressOfVariableStorage', 'VAR_FLAG_INT', [0, 65535], 61440),
                ('FlashBlockSize', 'VAR_FLAG_INT|VAR_FLAG_READ_ONLY', [0, 65535], 4096),
            ], variable_rows(module))
            self.assertEqual(['ClockPulseOut'], [action.name for action in module.actions])


if __name__ == '__main__':
    unittest.main()
