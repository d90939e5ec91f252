#!/usr/bin/env bash
# Configures and builds one configuration into build/<name>:
#   release  the library and the host alone, optimised (the default)
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer
#   tsan     ThreadSanitizer
# Further arguments name the targets to build (default: all).
set -euo pipefail
cd "$(dirname "$0")/.."

name="${1:-release}"
shift || true
case "$name" in
  release) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWELL_BUILD_TESTS=OFF -DTARNWELL_BUILD_BENCHMARKS=OFF) ;;
  asan) options=(-DCMAKE_BUILD_TYPE=Debug -DTARNWELL_SANITIZER=address) ;;
  # -O1 is as fast a run under ThreadSanitizer for a fifth less compiling.
  tsan) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWELL_SANITIZER=thread -DTARNWELL_BUILD_BENCHMARKS=OFF -DTARNWELL_SHARED=OFF
                 "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -g1 -DNDEBUG") ;;
  *) echo "build.sh: unknown configuration \"$name\" (release, asan or tsan)" >&2; exit 2 ;;
esac

cmake -S . -B "build/$name" -G Ninja "${options[@]}" >/dev/null
targets=()
for target in "$@"; do targets+=(--target "$target"); done
cmake --build "build/$name" "${targets[@]}"
