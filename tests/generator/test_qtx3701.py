"""The second generation's description, checked against what its data sheet says."""
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / 'generator'))
sys.dont_write_bytecode = True

import description

# (register, bytes, fields from the most significant one: (variable, highest bit, lowest bit))
WRITABLE = [
    (0x03, 1, [('MISOHiZEnable', 3, 3), ('AsyncOutput', 2, 0)]),
    (0x21, 2, [('CounterMSb', 11, 7), ('CounterLSb', 6, 2), ('Downsampling', 1, 0)]),
    (0x26, 1, [('SampleEveryPulse', 0, 0)]),
    (0x2a, 1, [('SignalOverride', 3, 3), ('SignalOverrideVal', 2, 2), ('SICEnable', 1, 1), ('VthOutEnable', 0, 0)]),
    (0x31, 3, [('PulsesPerStep', 23, 0)]),
    (0x32, 2, [('DACFirstIterationSetupTime', 15, 0)]),
    (0x33, 2, [('DACFirstStepSetupTime', 15, 0)]),
    (0x34, 2, [('DACRegularStepSetupTime', 15, 0)]),
    (0x35, 2, [('DACLastIterationHoldTime', 15, 0)]),
    (0x36, 2, [('DACLastStepHoldTime', 15, 0)]),
    (0x37, 2, [('DACRegularStepHoldTime', 15, 0)]),
    (0x38, 1, [
        ('SweepInterleavingEnable', 3, 3), ('SweepPhase', 2, 2), ('Reserved', 1, 1), ('AutoBidirEnable', 0, 0)]),
    (0x39, 2, [('DACMax', 12, 0)]),
    (0x3a, 2, [('DACMin', 12, 0)]),
    (0x3b, 4, [('DACStepCoarse', 25, 13), ('DACStepFine', 12, 0)]),
    (0x3c, 2, [('Iterations', 15, 0)]),
    (0x50, 1, [('BiasOverride', 5, 5), ('SendEveryPulse', 4, 4), ('PGSelect', 3, 0)]),
    (0x51, 2, [('DACOverride', 13, 13), ('DACOverrideVal', 12, 0)]),
    (0x58, 5, [
        ('DCOTunerWaitCycles', 35, 20), ('DCOOutputDiv', 19, 19), ('DCOConfigVal', 18, 10), ('DCOEnable', 9, 9),
        ('MClkSource', 8, 8), ('MClkDiv', 7, 6), ('MClkEnable', 5, 5), ('DCOTunerEnable', 4, 4),
        ('FMeasEnable', 3, 3), ('MeasClkSource', 2, 2), ('MClkMeasMode', 1, 1), ('MeasClkEnable', 0, 0)]),
    (0x59, 4, [('FMeasNumCycles', 31, 0)]),
    (0x5a, 4, [('DCOTarget', 31, 0)]),
    (0x60, 1, [('PRFDivide', 7, 0)]),
    (0x61, 1, [('LFSRBitEnable', 6, 1), ('StaggeredPRFEnable', 0, 0)]),
    (0x62, 1, [('StaggeredPRFDelay', 7, 0)]),
    (0x64, 3, [('LFSRTaps', 19, 0)]),
    (0x6a, 1, [
        ('MClkShaper', 5, 5), ('SPDShaper', 4, 4), ('SDShaper', 3, 3), ('SDFTEnable', 2, 2), ('SPDFTEnable', 1, 1),
        ('FTCtrl', 0, 0)]),
    (0x6b, 1, [('SDCT', 5, 0)]),
    (0x6c, 1, [('SDMT', 5, 0)]),
    (0x6d, 8, [('SDFT', 62, 0)]),
    (0x6e, 1, [('SPDCT', 3, 0)]),
    (0x6f, 1, [('SPDMT', 5, 0)]),
    (0x70, 8, [('SPDFT', 62, 0)]),
    (0x71, 1, [('SDCTEnable', 5, 2), ('SPDCTEnable', 1, 0)]),
    (0x76, 1, [('ClkOutEnable', 1, 1), ('ClkOutSource', 0, 0)]),
    (0x7c, 2, [
        ('SWMeasClkSignalOverride', 10, 10), ('SWWaitCycles', 9, 3), ('SWMeasEnable', 2, 2), ('SWSweepMode', 1, 1),
        ('SDLMeasEnable', 0, 0)]),
    (0x7e, 5, [('SWMeasTargetCycles', 39, 0)]),
]

# (register, bytes, variables)
READ_ONLY = [
    (0x00, 1, ['ForceZero']),
    (0x01, 1, ['ForceOne']),
    (0x02, 2, ['ChipID']),
    (0x47, 1, ['Sweeping']),
    (0x5b, 4, ['FMeasResult']),
    (0x5c, 2, ['DCOTunerResult', 'DCOTunerBusy', 'FMeasBusy']),
    (0x77, 5, ['PGMeasResult']),
    (0x78, 5, ['SDLMeasResult']),
    (0x79, 5, ['SDMeasResult']),
    (0x7a, 5, ['SPDMeasResult']),
    (0x7d, 5, ['SWMeasCyclesCounter']),
    (0x7f, 1, ['SWMeasBusy']),
]

LATER_LEVELS = [
    (2, 'DACMax'), (2, 'DACMin'), (2, 'DACStepFine'), (2, 'FrameSize'), (2, 'SamplersPerFrame'),
    (2, 'SampleDelayFromReference'), (3, 'BytesPerFrame'), (3, 'SampleDelay'), (4, 'SDCT'), (4, 'SDMT'), (4, 'SDFT'),
    (4, 'StaggeredPRFDelay'),
]

NOTIFIES = {
    'ZoomMax': ['DACMax'],
    'ZoomMin': ['DACMin'],
    'DACStep': ['DACStepFine'],
    'SamplersOnChip': ['FrameSize', 'SamplersPerFrame'],
    'SamplesPerSecond': ['FrameSize'],
    'Downsampling': ['SamplersPerFrame'],
    'FrameStitch': ['SamplersPerFrame'],
    'SamplersPerFrame': ['BytesPerFrame'],
    'BytesPerCounter': ['BytesPerFrame'],
    'OffsetDistanceFromReference': ['SampleDelayFromReference'],
    'SampleDelayToReference': ['SampleDelay'],
    'SampleDelayFromReference': ['SampleDelay'],
    'SampleDelay': ['SDCT', 'SDMT', 'SDFT', 'StaggeredPRFDelay'],
}

STROBES = {
    'LoadOutputBuffer': 15, 'ResetCounters': 17, 'StartMeas': 20, 'CalibrateDCO': 33, 'FMeasClearResult': 35,
    'StaggeredPRFReset': 45, 'SWStopMeas': 76, 'StartSweep': 93, 'ResetSweepController': 99,
}


class SecondGeneration(unittest.TestCase):
    def setUp(self):
        self.chip = description.load(ROOT / 'descriptions' / 'QTX3701.toml', 'QTX3701')

    def test_writable_registers(self):
        found = [(r.address, r.bytes, sorted(((v.name, v.high, v.low) for v in r.fields), key=lambda f: -f[1]))
                 for r in self.chip.registers if r.writable]
        self.assertEqual(WRITABLE, sorted(found))

    def test_read_only_registers(self):
        found = [(r.address, r.bytes, [v.name for v in r.fields]) for r in self.chip.registers if not r.writable]
        self.assertEqual(READ_ONLY, sorted(found))

    def test_evaluation_order(self):
        first = [v.name for v in self.chip.order if v.level == 1]
        self.assertEqual([v.name for v in self.chip.variables if v.name in set(first)], first)
        self.assertEqual(LATER_LEVELS, [(v.level, v.name) for v in self.chip.order[len(first):]])

    def test_who_is_notified(self):
        found = {v.name: [d.name for d in v.dependents] for v in self.chip.variables if v.dependents}
        self.assertEqual(NOTIFIES, found)

    def test_strobes(self):
        self.assertEqual(STROBES, {a.name: a.entry['strobe'] for a in self.chip.actions if 'strobe' in a.entry})

    def test_the_other_model_differs_in_its_name_only(self):
        other = description.load(ROOT / 'descriptions' / 'QTX3701.toml', 'QTX3702')
        self.assertEqual([s.replace('QTX3701', 'QTX3702') for s in self.chip.symbols], other.symbols)


if __name__ == '__main__':
    unittest.main()
