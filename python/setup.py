"""Adds to the package what is made from the rest of the tree: the table of meanings, and the shared libraries where there are any.

The libraries come from the folder that PULSEKIT3_LIBRARIES names, else from build/release of this tree. Without them the wheel
suits every platform and uses the library of the system.
"""

import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import setup
from setuptools.command.build_py import build_py

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:
    from wheel.bdist_wheel import bdist_wheel

TREE = pathlib.Path(__file__).resolve().parent.parent
ENDS = {"win32": ".dll", "darwin": ".dylib"}


def libraries():
    folder = pathlib.Path(os.environ.get("PULSEKIT3_LIBRARIES") or TREE / "build" / "release")
    names = [prefix + name for name in ("Pulsekit3", "Pulsekit3Simulator") for prefix in ("lib", "")]
    found = [folder / (name + ENDS.get(sys.platform, ".so")) for name in names]
    found = [path for path in found if path.exists()]
    if "PULSEKIT3_LIBRARIES" in os.environ and not found:
        raise SystemExit(f"no libraries in {folder}")
    return found


class Build(build_py):
    def run(self):
        super().run()
        package = pathlib.Path(self.build_lib, "pulsekit3")
        shutil.rmtree(package / "lib", ignore_errors=True)
        for library in libraries():
            (package / "lib").mkdir(exist_ok=True)
            shutil.copy(library, package / "lib")
        describe, descriptions = TREE / "generator" / "describe.py", sorted((TREE / "descriptions").glob("*.toml"))
        table = package / "meanings.json"
        subprocess.run([sys.executable, "-B", describe, "table", *descriptions, "--out", table], check=True)


class Wheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = not libraries()

    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


setup(cmdclass={"build_py": Build, "bdist_wheel": Wheel})
