#!/usr/bin/env bash
# Makes the Debian package, installs it with dpkg into a root that holds nothing but a shell and what the package depends
# on, runs a program there that was built against the package with find_package and with pkg-config, and purges it.
# usage: package.sh BUILD_FOLDER README
set -euo pipefail
[ "$(id -u)" -eq 0 ] || exec unshare --map-root-user "$0" "$@"
PATH=$PATH:/usr/sbin
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }; }

quietly cpack --config "$1/CPackConfig.cmake" -B "$work"
package=$(echo "$work"/pulsekit3_*.deb)
dpkg-deb -x "$package" "$work/unpacked"

# The Python package beside it: the library is the system's.
python_package=$(echo "$work"/python3-pulsekit3_*_all.deb)
dpkg-deb -f "$python_package" Depends | grep -q 'python3-numpy, pulsekit3 (>= '
dpkg-deb -x "$python_package" "$work/python"
env -u PULSEKIT3_LIBRARY LD_LIBRARY_PATH="$work/unpacked/usr/lib" PYTHONPATH="$work/python/usr/lib/python3/dist-packages" \
  PULSEKIT3_BRIDGE_LIBRARY=libPulsekit3Simulator.so PULSEKIT3_SIMULATED_TIME=deterministic \
  /usr/bin/python3 -B "$work"/python/usr/share/doc/python3-pulsekit3/examples/first_frame.py | grep '^256 levels'

# The first program of the README, compiled as it says and by CMake.
sed -n '/^```c$/,/^```$/p' "$2" | sed '/^```/d' >"$work/first.c"
cp "$(dirname "$0")/consumer.cmake" "$work/CMakeLists.txt"
quietly cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/unpacked/usr"
quietly cmake --build "$work/build"
export PKG_CONFIG_PATH=$work/unpacked/usr/lib/pkgconfig
compile=$(grep '^cc first.c' "$2")
(cd "$work" && eval "$compile -Wall -Wextra -Werror")

# The C++ header, as it is installed.
cp "$(dirname "$2")/examples/first_frame.cpp" "$work"
(cd "$work" && eval "c++ -std=c++17 first_frame.cpp -o third -Wall -Wextra -Werror $(pkg-config --cflags --libs pulsekit3)")

# The root: the packages that the dependencies need, as this system's dpkg knows them, and those of a shell.
mkdir -p "$root"/{dev,tmp,usr/{bin,sbin,lib,lib64},var/lib/dpkg/{info,updates}}
for folder in bin sbin lib lib64; do ln -s usr/$folder "$root/$folder"; done
touch "$root/dev/null"
names() { sed 's/([^)]*)//g; s/|[^,]*//g; s/:[a-z]*//g; s/,/ /g'; }
wanted="dash libc-bin $(dpkg-deb -f "$package" Depends | names)"
seen=" "
while read -r name wanted <<<"$wanted"; [ -n "$name" ]; do
  [[ $seen == *" $name "* ]] && continue
  seen+="$name "
  # Not installed where another alternative is.
  dpkg-query -s "$name" >"$work/stanza" 2>/dev/null || continue
  { cat "$work/stanza"; echo; } >>"$root/var/lib/dpkg/status"
  dpkg-query -L "$name" | while read -r file; do [ -d "$file" ] || echo "$file"; done |
    tee "$root/var/lib/dpkg/info/$name.list" | tar -cPT - --ignore-failed-read 2>/dev/null |
    tar -C "$root" -x --keep-directory-symlink 2>/dev/null
  wanted+=" $(dpkg-query -W -f '${Pre-Depends}, ${Depends}' "$name" | names)"
done
files() { find "$root" -path "$root/var" -prune -o ! -name ld.so.cache -print | sort; }
files >"$work/before"

quietly dpkg --root="$root" --log="$work/dpkg.log" --install "$package"
cp "$work/first" "$root/tmp"
cp "$work/build/first" "$root/tmp/second"
cp "$work/third" "$root/tmp"
inside() { env -i PATH=/usr/bin PULSEKIT3_BRIDGE_LIBRARY=libPulsekit3Simulator.so "$(command -v chroot)" "$root" "$@"; }
inside /tmp/first | grep -x 'level at the first sampler: [0-9.]* %'
inside /tmp/second | grep -x 'level at the first sampler: [0-9.]* %'
inside /tmp/third | grep '^256 levels'
if [ -e "$root/usr/bin/pulsekit" ]; then inside pulsekit list | grep SIM00001; fi
rm "$root"/tmp/*
quietly dpkg --root="$root" --log="$work/dpkg.log" --purge pulsekit3
files | diff "$work/before" -
