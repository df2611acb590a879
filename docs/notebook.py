"""Runs a guide like a notebook: its ```py blocks, one after the other in one program, in the current folder, where pictures go.
What a block prints must stand in the ```text block behind it.

usage: notebook.py GUIDE [--update]   --update writes what is printed into the guide
"""

import contextlib
import io
import pathlib
import re
import sys

CELL = re.compile(r"```py\n(.*?)```\n(?:\n```text\n(.*?)```\n)?", re.S)

guide = pathlib.Path(sys.argv[1]).resolve()
names: dict = {}
faults = []


def without_lines(text):
    """Lines of the library's source code move with every change of it."""
    return re.sub(r"(?<= in src/)(\w+):\d+", r"\1", text)


def run(cell):
    printed = io.StringIO()
    with contextlib.redirect_stdout(printed):
        exec(compile(cell[1], guide.name, "exec"), names)
    text = "".join(line.rstrip() + "\n" for line in printed.getvalue().splitlines())
    if without_lines(text) != without_lines(cell[2] or ""):
        faults.append(f"{cell[1]}prints:\n{text}")
    return f"```py\n{cell[1]}```\n" + (f"\n```text\n{text}```\n" if text else "")


text = CELL.sub(run, guide.read_text())
if "--update" in sys.argv:
    guide.write_text(text)
elif faults:
    sys.exit("\n".join(faults))
