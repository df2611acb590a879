"""Includes point down only, in the library and in the simulated bench. usage: layers.py CHECKOUT"""
import pathlib
import re
import sys

LAYERS = {'src': ['platform', 'support', 'interface', 'module', 'chip', ''],
          'simulator': ['', 'base', 'world', 'chip', 'board', 'bridge', 'host', 'usb']}


def place(path, root):
    """Layer and driver that a file belongs to."""
    folders = (*path.relative_to(root).parts[:-1], '', '')
    return folders[0], folders[1]


found = []
for top, layers in LAYERS.items():
    root = pathlib.Path(sys.argv[1]).resolve() / top
    for path in [*root.rglob('*.h'), *root.rglob('*.cpp')]:
        for name in re.findall(r'#include "([^"]+)"', path.read_text()):
            target = next((t for t in ((path.parent / name).resolve(), root / name) if t.exists()), path)
            (own, driver), (other, sibling) = place(path, root), place(target, root)
            if layers.index(other) > layers.index(own) or own == other and driver and sibling not in ('', driver, 'common'):
                found.append(f'{path.relative_to(root.parent)} includes {name}')
sys.exit('\n'.join(found) or 0)
