"""Holds the documents to the code: links, paths, names, codes and command lines that they show.

usage: check.py ROOT BUILD   with the built library, simulator and, where there is one, tool
"""

import ctypes
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT, BUILD = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
DOCUMENTS = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), ROOT / "generator/README.md"]
faults = []


def anchors(path):
    headings = re.findall(r"^#+ (.*)$", path.read_text(), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_links(text):
    for target in re.findall(r"\]\((?!https?:)([^)]+)\)", text):
        file, _, anchor = target.partition("#")
        path = (document.parent / file) if file else document
        if not path.exists():
            yield f"link to {target}: no such file"
        elif anchor and anchor not in anchors(path):
            yield f"link to {target}: no such heading"
    for path in re.findall(r"`((?:docs|src|scripts|examples|include|simulator|tests|generator|packaging)/[\w./-]*)`", text):
        if not (ROOT / path).exists() and not (BUILD / path).exists():
            yield f"{path}: no such file"


def check_names(text):
    for name in set(re.findall(r"\b(?:QTX|QTXSim|FTx232H)_[A-Z]\w+\b(?!\.)", text)) - DECLARED:
        yield f"{name} is in no header"
    for name in set(re.findall(r"PULSEKIT\w+\w", text)) - OPTIONS:
        yield f"{name}: no such option or environment variable"


def check_codes(text):
    for code, hexadecimal, message in re.findall(r"^\| (\d+) \| (0x[0-9a-f]+) \| ([^|]*) \|", text, re.M):
        library = LIBRARY.GetErrorMessage(int(code)).decode()
        if int(code) != int(hexadecimal, 16) or message != library:
            yield f"code {code}: the library says {int(code):#x} {library}"
    for code in re.findall(r"\bcodes? (\d+)\b", text):
        if LIBRARY.GetErrorMessage(int(code)).startswith(b"NO ERROR"):
            yield f"code {code} does not exist"


def blocks(language, text):
    return re.findall(rf"^ *```{language}\n(.*?)```", text, re.S | re.M)


def check_programs(text, folder):
    for scene in blocks("toml", text):
        path = pathlib.Path(folder, "scene.toml")
        path.write_text(scene)
        error = ctypes.create_string_buffer(256)
        if SIMULATOR.QTXSim_LoadScene(0, str(path).encode(), error, len(error)) and "reflector" in scene:
            yield f"scene: {error.value.decode()}"
    for program in blocks("python", text):
        run = subprocess.run([sys.executable, "-c", program], env=ENVIRONMENT, capture_output=True, text=True)
        if run.returncode or "SIM00001" not in run.stdout:
            yield f"Python: {run.stdout}{run.stderr}"
    # The pieces of a document are one program.
    if "pulsekit3.hpp" in (pieces := "".join(blocks("cpp", text))):
        includes = "\n".join(re.findall("^#include .*", pieces, re.M))
        source, program = pathlib.Path(folder, "piece.cpp"), pathlib.Path(folder, "piece")
        source.write_text(f"{includes}\nint main() {{\n{re.sub('#include .*', '', pieces)}}}\n")
        options = ["-std=c++17", f"-I{ROOT}/include", f"-L{BUILD}", "-lPulsekit3", "-o", program]
        for command in ["c++", source, *options], [program]:
            run = subprocess.run(command, cwd=folder, env=ENVIRONMENT, capture_output=True, text=True)
            if run.returncode:
                yield f"C++: {run.stdout}{run.stderr}"
                break


def check_commands(text, folder):
    presets = re.findall(r'"name": "(\w+)"', (ROOT / "CMakePresets.json").read_text())
    for preset in re.findall(r"--preset (\w+)", text):
        if preset not in presets:
            yield f"preset {preset} does not exist"
    for command in re.findall(r"^pulsekit .*$", "\n".join(blocks("sh", text)), re.M):
        if not (BUILD / "pulsekit").exists():
            continue
        run = subprocess.run(
            [BUILD / "pulsekit", *shlex.split(command, comments=True)[1:]], cwd=folder, env=ENVIRONMENT, capture_output=True, text=True
        )
        if run.returncode != 0:
            yield f"{command}: exit code {run.returncode}: {run.stderr}"


def check_mentions(text):
    """Commands and options that are named within the text."""
    for mention in re.findall(r"`pulsekit ([a-z][^`]*)`", text):
        command = mention.split()[0]
        if command not in HELP:
            HELP[command] = subprocess.run([BUILD / "pulsekit", command, "--help"], capture_output=True, text=True).stdout
        for word in re.findall(r"(?<!\S)--[a-z]+", mention) or [f"pulsekit {command}"]:
            if word not in HELP[command] + HELP[""]:
                yield f"pulsekit {mention}: there is no {word}"


def words(*patterns):
    paths = [path for pattern in patterns for path in ROOT.rglob(pattern) if "build" not in path.parts]
    return set(re.findall(r"\w+", "\n".join(path.read_text() for path in paths)))


HELP = {"": subprocess.run([BUILD / "pulsekit", "--help"], capture_output=True, text=True).stdout} if (BUILD / "pulsekit").exists() else None
DECLARED = words("*.h")
OPTIONS = words("*.cpp", "CMakeLists.txt")
LIBRARY = ctypes.CDLL(str(BUILD / "libPulsekit3.so"))
SIMULATOR = ctypes.CDLL(str(BUILD / "libPulsekit3Simulator.so"))
SIMULATOR.QTXSim_AddRadar(b"FT0001AB", None, 0, b"QTX-K245", b"QTX3701")
LIBRARY.GetErrorMessage.restype = ctypes.c_char_p
with tempfile.TemporaryDirectory() as scratch:
    pathlib.Path(scratch, "examples").symlink_to(ROOT / "examples")
    ENVIRONMENT = os.environ | {
        "PULSEKIT3_BRIDGE_LIBRARY": str(BUILD / "libPulsekit3Simulator.so"),
        "PULSEKIT3_SIMULATED_TIME": "deterministic",
        "LD_LIBRARY_PATH": str(BUILD),
        "XDG_RUNTIME_DIR": scratch,
    }
    for document in DOCUMENTS:
        content = document.read_text()
        found = [*check_links(content), *check_names(content), *check_codes(content)]
        found += [*check_programs(content, scratch), *check_commands(content, scratch)]
        found += check_mentions(content) if HELP else []
        faults += [f"{document.relative_to(ROOT)}: {fault}" for fault in found]
print("\n".join(faults) or f"{len(DOCUMENTS)} documents agree")
sys.exit(bool(faults))
