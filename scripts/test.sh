#!/usr/bin/env bash
# Builds and runs every test: first under AddressSanitizer + UndefinedBehaviorSanitizer,
# then the threaded parts under ThreadSanitizer, and last the whole suite in the
# release build, whose summary is the closing line.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

# Test labels whose cases start threads of their own.
threaded='platform|modules|store|analytics'

scripts/build.sh asan
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build/asan -j "$jobs" --output-on-failure

scripts/build.sh tsan platform_tests modules_tests store_tests analytics_tests
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" -L "$threaded" --output-on-failure

scripts/build.sh release
ctest --test-dir build/release -j "$jobs" --output-on-failure
