"""Breaks descriptions at random for some seconds: each ends in sources or in an error that names the line."""
import random
import re
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / 'generator'))
sys.dont_write_bytecode = True

import description
import sources

VALUES = ['""', '"(invalid symbol)"', '"\\u00fc"', '"\\u0000"', '"a\\"b"', '"*/"', '"../x"', '"Order"', 'true', '1.5', '-1', '0', '[]',
          '{}', '[[]]', '1e999', 'nan', '-inf', '1979-05-27', '9' * 19, '9' * 5000, '0x' + 'f' * 9000, '[' * 3000,
          '"' + '+'.join(['1'] * 2000) + '"', '"' + '-' * 5000 + '1"', '"9223372036854775807 * 3"', '"1 / 0"', '"1e999"', '"Mode"',
          '"' + '(' * 300 + '"', '"lambda: 1"', '"x := 1"', '"{model}"', '"f\'{1}\'"']
TOKEN = re.compile(r'"[^"\n]*"|[\w.]+|[][{},=#]')


def broken(text, chance):
    for _ in range(chance.randint(1, 3)):
        start, end = chance.choice([match.span() for match in TOKEN.finditer(text)])
        other = chance.choice(TOKEN.findall(text))
        text = text[:start] + chance.choice(['', other, chance.choice(VALUES)]) + text[end:]
    return text


def check(path, model):
    try:
        loaded = description.load(path, model)
    except description.DescriptionError as error:
        assert re.fullmatch(rf'{re.escape(str(path))}:\d+: [ -~]+', str(error)), f'no line: {error}'
        return
    for write in (sources.header, sources.symbols, sources.variables, sources.registers):
        assert write(loaded).isascii()


def main(seconds, seed=1):
    originals = [path.read_text(encoding='utf-8') for path in sorted(ROOT.glob('descriptions/*2*.toml'))]
    originals.append((ROOT / 'tests/generator/Bench.toml').read_text(encoding='utf-8'))
    end, runs = time.monotonic() + seconds, 0
    with tempfile.TemporaryDirectory() as directory:
        path = Path(directory) / 'broken.toml'
        while time.monotonic() < end:
            chance = random.Random(f'{seed}/{runs}')
            text = chance.choice(originals)
            path.write_text(broken(text, chance), encoding='utf-8')
            try:
                check(path, re.search('name = "(.*?)"', text)[1])
            except BaseException:
                kept = Path('crash-description.toml')
                kept.write_bytes(path.read_bytes())
                print(f'run {runs} of seed {seed}, kept in {kept}')
                raise
            runs += 1
    print(f'{runs} descriptions')


main(float(sys.argv[1]), *sys.argv[2:])
