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
  # The benchmarks are built by scripts/bench.sh, optimised, where they mean something.
  asan) options=(-DCMAKE_BUILD_TYPE=Debug -DTARNWELL_SANITIZER=address -DTARNWELL_BUILD_BENCHMARKS=OFF) ;;
  # -O1 compiles a fifth faster than -O2. Its flow analysis takes some
  # std::optional members for unset where -O2's does not: the optimised
  # builds keep that warning.
  tsan) flags="-O1 -g1 -DNDEBUG -Wno-maybe-uninitialized"
        options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWELL_SANITIZER=thread -DTARNWELL_BUILD_BENCHMARKS=OFF -DTARNWELL_SHARED=OFF
                 "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$flags" "-DCMAKE_C_FLAGS_RELWITHDEBINFO=$flags") ;;
  *) echo "build.sh: unknown configuration \"$name\" (release, asan or tsan)" >&2; exit 2 ;;
esac

cmake -S . -B "build/$name" -G Ninja "${options[@]}" >/dev/null
targets=()
for target in "$@"; do targets+=(--target "$target"); done
cmake --build "build/$name" "${targets[@]}"
