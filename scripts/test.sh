#!/usr/bin/env bash
# Checks that the library's layers point down, then builds and runs the tests
# of every area with threads, locks or queues under ThreadSanitizer (an
# optimised build), then the whole suite under AddressSanitizer +
# UndefinedBehaviorSanitizer, whose summary is the closing line.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

scripts/check-layers.py

# The areas whose code runs on more than one thread. Records, analytics,
# charts, widgets and extensions compute on plain values, and the host's
# tests run the host in processes of its own: those are for the second build.
areas=(platform healthkit cloudkit settings store sync health modules)
scripts/build.sh tsan "${areas[@]/%/_tests}"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" -L "$(IFS='|'; echo "${areas[*]}")" --output-on-failure

scripts/build.sh asan
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure
