"""Compares what the built library exports with what the headers declare.

usage: exports.py LIBRARY HEADER_FOLDER...
"""

import pathlib
import re
import subprocess
import sys

# A declaration: QTX_API ... name( or extern QTX_API type name;
DECLARATION = re.compile(r"\bQTX_API\b[^;(]*?\b(\w+)\s*(?:\(|;)")


def declared(folders):
    names = set()
    for folder in folders:
        for header in pathlib.Path(folder).rglob("*.h"):
            text = re.sub(r"/\*.*?\*/|//[^\n]*", "", header.read_text(), flags=re.S)
            text = re.sub(r"^[ \t]*#.*(?:\\\n.*)*$", "", text, flags=re.M)
            names.update(DECLARATION.findall(text))
    return names


def exported(library):
    if library.endswith(".dll"):
        command = ["x86_64-w64-mingw32-objdump", "-p", library]
        output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
        needed = set(re.findall(r"DLL Name: (.*)", output)) - {"KERNEL32.dll", "msvcrt.dll"}
        if needed:
            sys.exit(f"needs {needed} beside it")
        return set(re.findall(r"^\s+\[ *\d+\] (\w+)$", output.partition("[Ordinal/Name Pointer] Table")[2], re.M))
    output = subprocess.run(
        ["nm", "-D", "--defined-only", "--format=posix", library], check=True, capture_output=True, text=True
    ).stdout
    names = {line.split()[0] for line in output.splitlines() if line}
    # What the address sanitizer adds to a variable.
    return {name for name in names if not name.startswith("__odr_asan.")}


def main():
    want, have = declared(sys.argv[2:]), exported(sys.argv[1])
    if len(want) < 80:
        sys.exit(f"only {len(want)} declarations found: the headers were not read")
    for name in sorted(want - have):
        print(f"declared but not exported: {name}")
    for name in sorted(have - want):
        print(f"exported but not declared: {name}")
    print(f"{len(have)} exports, {len(want)} declarations")
    sys.exit(want != have)


main()
