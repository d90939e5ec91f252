#!/usr/bin/env bash
# Fuzzes one target by hand with libFuzzer: scripts/fuzz.sh NAME SECONDS [OPTION...]
#   NAME     csv_import, aware_import, health_export, link, intent_parameters,
#            cloud_record or settings (the files in fuzz/)
#   SECONDS  how long to fuzz
#   OPTION   further libFuzzer options, such as -jobs=2 or -max_len=4096
# Builds the libraries and the target with clang, -fsanitize=fuzzer, address
# and undefined, into build/fuzz. The run starts from the target's seed
# corpus, fuzz/corpus/NAME, and keeps the inputs it finds in
# build/fuzz/corpus/NAME, never in the repository; a crash is written to
# build/fuzz/findings/NAME/. A crash worth keeping is renamed to say what it
# is, added to fuzz/corpus/NAME, and gets a unit test with its fix.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 2 ]; then
  echo "usage: scripts/fuzz.sh NAME SECONDS [libFuzzer option...]" >&2
  exit 2
fi
name="$1"
seconds="$2"
shift 2
if [ ! -f "fuzz/$name.cpp" ] || [ ! -d "fuzz/corpus/$name" ]; then
  echo "fuzz.sh: no fuzz target \"$name\" (see the files in fuzz/)" >&2
  exit 2
fi

flags="-O1 -g -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
flags+=" -include $PWD/fuzz/compat/SourceLocation.h"
launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
  -DTARNWELL_FUZZ=ON -DTARNWELL_BUILD_TESTS=OFF -DTARNWELL_BUILD_BENCHMARKS=OFF "${launcher[@]}" >/dev/null
cmake --build build/fuzz --target "fuzz_$name"

found="build/fuzz/corpus/$name"
findings="build/fuzz/findings/$name"
mkdir -p "$found" "$findings"
exec "build/fuzz/fuzz/fuzz_$name" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$findings/" "$@" "$found" "fuzz/corpus/$name"
