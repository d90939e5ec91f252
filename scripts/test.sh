#!/usr/bin/env bash
# Builds and runs every test: the threaded parts under ThreadSanitizer (an
# optimised build, which also compiles the command-line host so that warnings
# of the optimiser show), then the whole suite under AddressSanitizer +
# UndefinedBehaviorSanitizer, whose summary is the closing line.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

# Test labels whose cases start threads of their own.
threaded='platform|modules|store|analytics'

scripts/build.sh tsan platform_tests modules_tests store_tests analytics_tests tarnwell
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" -L "$threaded" --output-on-failure

scripts/build.sh asan
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure
