#!/usr/bin/env python3
"""Turns the descriptions of chips, modules and bridges into C++ and into a reference of all variables.

  describe.py sources <description> --model <model> --out <directory>
  describe.py reference <description>... --out <file>
  describe.py meaning <description>... --out <directory>
  describe.py table <description>... --out <file>
"""
import argparse
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import description
import meaning
import reference
import sources


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest='command', required=True)
    for name, count in (('sources', 1), ('reference', '+'), ('meaning', '+'), ('table', '+')):
        command = commands.add_parser(name)
        command.add_argument('descriptions', nargs=count, type=Path)
        command.add_argument('--out', required=True, type=Path)
        if name == 'sources':
            command.add_argument('--model', required=True)
    return parser.parse_args()


def run(options):
    if options.command == 'sources':
        sources.write(description.load(options.descriptions[0], options.model), options.out)
        return
    described = [description.load(path, model, explained=True)
                 for path in options.descriptions for model in description.models(path)]
    if options.command == 'meaning':
        meaning.write(described, options.out)
        return
    if options.command == 'table':
        meaning.write_table(described, options.out)
        return
    options.out.parent.mkdir(parents=True, exist_ok=True)
    options.out.write_text(reference.markdown(described), encoding='utf-8')


def main():
    try:
        run(arguments())
    except (description.DescriptionError, OSError) as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
