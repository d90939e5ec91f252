#!/usr/bin/env bash
# Checks that the library's layers point down, then builds and runs every
# test: the library's under ThreadSanitizer (an optimised build, which also
# compiles the command-line host so that warnings of the optimiser show), then
# the whole suite under AddressSanitizer + UndefinedBehaviorSanitizer, whose
# summary is the closing line.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

scripts/check-layers.py

# The library's areas with tests of their own. The host's tests run the host
# in processes of its own: they are for the sanitizers of the second build.
areas=(platform healthkit cloudkit widgets settings extensions records store sync health analytics charts modules)
scripts/build.sh tsan "${areas[@]/%/_tests}" tarnwell
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" -L "$(IFS='|'; echo "${areas[*]}")" --output-on-failure

scripts/build.sh asan
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure
