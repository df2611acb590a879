#!/usr/bin/env bash
# Makes a wheel, installs it where nothing else of this tree is found, and runs an example there. usage: wheel.sh BUILD_FOLDER
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$(dirname "$0")/../.."
PULSEKIT3_LIBRARIES=$1 scripts/wheel "$work" | grep -q "py3-none-linux_$(uname -m).whl"
/usr/bin/python3 -m venv --system-site-packages --without-pip "$work/venv"
/usr/bin/python3 -m pip --python "$work/venv/bin/python" install --quiet --no-index --no-deps "$work"/*.whl
env -i PULSEKIT3_BRIDGE_LIBRARY=libPulsekit3Simulator.so PULSEKIT3_SIMULATED_TIME=deterministic \
  "$work/venv/bin/python" examples/first_frame.py | grep '^256 levels'
env -i "$work/venv/bin/python" -c 'import pulsekit3
with pulsekit3.simulated(), pulsekit3.open() as radar: print(radar.settings["PulsesPerStep"])' | grep 'Pulses at each step'
