#!/usr/bin/env bash
# Builds and runs the examples as a program outside this project would:
# against a prefix the build is installed into, never the source or build
# tree. Each example's day must agree, key by key, with `tarnwell --json day`
# on the same installation.
#   scripts/examples.sh [BUILD]   (default: build/release, built with the shared library)
# A sanitized build installs a package that links its sanitizer's runtime.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"

die() { echo "examples: $*" >&2; exit 1; }
# Runs a command with its output kept back, shown only if it fails.
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; return 1; }; }

[[ -d "${1:-build/release}" ]] || die "no build directory ${1:-build/release} (scripts/build.sh release)"
build="$(cd "${1:-build/release}" && pwd)"
host="$build/apps/tarnwell/tarnwell"
[[ -x "$host" && -e "$build/libtarnwell.so" ]] || die "$build has no tarnwell and libtarnwell.so (build it with TARNWELL_SHARED=ON)"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
# The keychain lives outside the container: keep it out of the user's home too.
export XDG_DATA_HOME="$work/data"
unset LD_LIBRARY_PATH TARNWELL_LIBRARY PYTHONPATH
# Debian's Python, where bootstrap.sh installs pandas, with a sanitizer's
# runtime when the library was built with one.
python="$root/scripts/python.sh"

prefix="$work/prefix"
quiet cmake --install "$build" --prefix "$prefix"
# lib or lib/<multiarch>, as GNUInstallDirs chose.
library="$(find "$prefix" -name libtarnwell.so.0.1 -print -quit)"
[[ -n "$library" ]] || die "the install gave no libtarnwell.so.0.1"
libdir="$(dirname "$library")"
if leaks="$(grep -rlF -e "$build" -e "$root" "$libdir/cmake" "$libdir/pkgconfig")"; then
  die "installed files name the build or source tree: $leaks"
fi
[[ "$(readelf -d "$library")" != *"$build"* ]] || die "$library keeps a run path into $build"

# An installation with a day of use, and the host's own answer for it.
now=2026-11-25T20:00:00Z
date=2026-11-25
container="$work/container"
"$host" --container "$container" --now "$now" --tz UTC demo >/dev/null
"$host" --container "$container" --now "$now" --tz UTC pickup add 2026-11-25T19:52:00Z 2026-11-25T19:55:00Z >/dev/null
"$host" --container "$container" --now "$now" --tz UTC --json day "$date" >"$work/expected.json"

# compare NAME FILE [all]: the last line of FILE is a day as JSON with the
# metrics (with "all", every key the host gave), and each key it shares with
# `tarnwell --json day` holds the host's value, of the same JSON type.
compare() {
  python3 - "$1" "$work/expected.json" "$2" "${3:-}" <<'EOF'
import json, sys
name, expected_file, actual_file, all_keys = sys.argv[1:]
def last_line(path):
    lines = open(path, encoding="utf-8").read().splitlines()
    return json.loads(lines[-1]) if lines else {}
expected, actual = last_line(expected_file), last_line(actual_file)
metrics = ["startOfDay", "screenTime", "pickupTimes", "longestPickup", "checkingEvery", "walkingLife", "indoorLife",
           "bestBreak", "continuouslyUsage", "firstPickupDate", "lastPickupDate", "sleepTime", "asleepAt"]
required = list(expected) if all_keys else metrics
missing = [key for key in required if key not in actual]
if missing:
    sys.exit(f"examples: {name} gave no {', '.join(missing)}")
for key in (key for key in actual if key in expected):
    a, e = actual[key], expected[key]
    if a != e or type(a) is not type(e):
        sys.exit(f"examples: {name} differs from tarnwell --json day at \"{key}\": {a!r}, the host {e!r}")
EOF
}

# uses_prefix PROGRAM: it loads the installed libtarnwell, by its SONAME.
uses_prefix() {
  [[ "$(readelf -d "$1")" == *"Shared library: [libtarnwell.so.0.1]"* ]] || die "$1 does not need libtarnwell.so.0.1"
  local loaded
  loaded="$(ldd "$1" | awk '$1 == "libtarnwell.so.0.1" && $3 != "not" { print $3 }')"
  [[ "$loaded" == "$library" ]] || die "$1 loads libtarnwell from ${loaded:-nowhere}, not $library"
}

run() {  # NAME PROGRAM...: runs it on the installation and checks its day
  local name="$1"; shift
  "$@" --tz UTC --now "$now" "$container" "$date" >"$work/$name.out" || die "$name failed"
  compare "$name" "$work/$name.out" "${all:-}"
}

# The CMake package: the C++ example and the C one, warnings as errors.
quiet cmake -S examples/cpp -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF || die "the examples' project does not configure against $prefix"
found="$(sed -n 's/^TarnwellKit_DIR:PATH=//p' "$work/cmake/CMakeCache.txt")"
[[ "$found" == "$libdir/cmake/TarnwellKit" ]] || die "the examples found TarnwellKit in $found, not in $prefix"
quiet cmake --build "$work/cmake" || die "the examples do not build against the CMake package"
uses_prefix "$work/cmake/day"
uses_prefix "$work/cmake/day-c"
all='' run "C++ (CMake)" "$work/cmake/day"
all=1 run "C (CMake)" "$work/cmake/day-c"

# pkg-config: the C example alone, the library found through LD_LIBRARY_PATH.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
read -ra flags <<<"$(pkg-config --cflags --libs tarnwell)"
"${CC:-cc}" -std=c11 -Wall -Wextra -Wpedantic -Werror examples/c/day.c "${flags[@]}" -o "$work/day-pkg-config"
LD_LIBRARY_PATH="$libdir" uses_prefix "$work/day-pkg-config"
LD_LIBRARY_PATH="$libdir" all=1 run "C (pkg-config)" "$work/day-pkg-config"

# Python: the package installed beside the library.
ran="C++, C (CMake), C (pkg-config)" skipped=""
if [[ -d "$libdir/python/tarnwell" ]]; then
  export PYTHONPATH="$libdir/python" LD_LIBRARY_PATH="$libdir"
  where="$("$python" -c 'import tarnwell; print(tarnwell.__file__)')" || die "$python cannot import tarnwell from $libdir/python"
  [[ "$where" == "$libdir/python/"* ]] || die "$python imported tarnwell from $where"
  run "Python" "$python" examples/python/day.py
  ran+=", Python"
else
  skipped="; Python skipped: the install has no python/tarnwell"
fi
echo "examples: $ran agree with tarnwell --json day on $date (installed to ${libdir#"$prefix"/})$skipped"
