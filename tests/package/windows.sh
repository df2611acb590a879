#!/usr/bin/env bash
# Makes the ZIP for Windows, unpacks it and builds the first program of the README against it, by hand and by CMake; both
# run under Wine with what is in the ZIP and nothing else, and so does the tool.
# usage: windows.sh BUILD_FOLDER README
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
wine=$here/../../scripts/wine
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }

quietly cpack --config "$1/CPackConfig.cmake" -B "$work"
quietly python3 -m zipfile -e "$work"/*.zip "$work"
package=$(echo "$work"/*-win64)
sed -n '/^```c$/,/^```$/p' "$2" | sed '/^```/d' >"$work/first.c"
x86_64-w64-mingw32-gcc-posix "$work/first.c" -o "$package/bin/first.exe" -I"$package/include" -L"$package/lib" -lPulsekit3 -Wall -Wextra -Werror
cp "$here/consumer.cmake" "$work/CMakeLists.txt"
quietly cmake -S "$work" -B "$work/build" -DCMAKE_TOOLCHAIN_FILE="$here/../../cmake/toolchains/windows-mingw.cmake" \
  -DCMAKE_FIND_ROOT_PATH="$package"
quietly cmake --build "$work/build"
cp "$work/build/first.exe" "$package/bin/second.exe"
x86_64-w64-mingw32-dlltool -D Pulsekit3.dll -d "$package/lib/Pulsekit3.def" -l "$work/libPulsekit3.a"
x86_64-w64-mingw32-gcc-posix "$work/first.c" -o "$package/bin/third.exe" -I"$package/include" "$work/libPulsekit3.a"
export PULSEKIT3_BRIDGE_LIBRARY=Pulsekit3Simulator.dll
for program in first second third; do "$wine" "$package/bin/$program.exe" | grep 'level at the first sampler: [0-9.]* %'; done
if [ -e "$package/bin/pulsekit.exe" ]; then "$wine" "$package/bin/pulsekit.exe" list | grep SIM00001; fi
ls "$package/CHANGELOG.md" "$package/docs/getting-started.md" "$package/docs/pictures/room.svg" >/dev/null
