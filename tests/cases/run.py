"""Holds a language's way of calling the library to the table of cases. usage: run.py [--only NAME,...] PROGRAM [ARGUMENT...]

The program gets a call a line, its arguments behind tabs, and answers each with a line, as cases.c does. PULSEKIT3_BRIDGE_LIBRARY
names the simulator.
"""
import decimal
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile


def same(wanted, got):
    """Texts are equal; numbers are equal to the digits that are wanted."""
    try:
        number, other = decimal.Decimal(wanted), decimal.Decimal(got)
    except decimal.InvalidOperation:
        return wanted == got
    return abs(other - number) <= decimal.Decimal(5).scaleb(number.as_tuple().exponent - 1)


lines = (pathlib.Path(__file__).parent / 'cases.txt').read_text().splitlines()
rows = [[cell.strip() for cell in line.split('|')] for line in lines if line and not line.startswith('#')]
words = sys.argv[1:]
if words[0] == '--only':
    names = words[1].split(',')
    rows = [row for row in rows if row[0] in names]
    words = words[2:]
calls = '\n'.join('\t'.join(shlex.split(call)) for _, call, _ in rows)
command = [os.path.abspath(word) if os.path.exists(word) else word for word in words]
environment = os.environ | {'PULSEKIT3_SIMULATED_TIME': 'deterministic'}
with tempfile.TemporaryDirectory() as folder:
    run = subprocess.run(command, input=calls, capture_output=True, text=True, cwd=folder, env=environment, timeout=120)
answers = run.stdout.splitlines()
faults = [f'exit code {run.returncode}: {run.stderr}'] if run.returncode else []
for (name, call, wanted), got in zip(rows, answers + [''] * len(rows)):
    pairs = list(zip(wanted.split(), got.split()))
    if len(wanted.split()) != len(got.split()) or not all(same(*pair) for pair in pairs):
        faults.append(f'{name}: {call} answers {got!r}, not {wanted!r}')
print('\n'.join(faults) or f'{len(rows)} cases')
sys.exit(bool(faults))
