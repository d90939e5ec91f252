#!/usr/bin/env bash
# Checks that the library's layers point down, then builds and runs the tests
# of every area with threads, locks or queues under ThreadSanitizer (an
# optimised build), then the examples, the Python tests and the whole suite
# under AddressSanitizer + UndefinedBehaviorSanitizer, whose summary is the
# closing line.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

scripts/check-layers.py

# A throw-away PostgreSQL server for the cloud's tests on a server and the
# convergence test through it, unless one is given; stopped however the
# run ends.
if [ -z "${TARNWELL_TEST_POSTGRES:-}" ]; then
  server="$(mktemp -d /tmp/tarnwell-pg.XXXXXX)"
  port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
  trap 'scripts/pg-server.sh stop "$server" || true; rm -rf "$server"' EXIT
  TARNWELL_TEST_POSTGRES="$(scripts/pg-server.sh start "$server" "$port")"
  export TARNWELL_TEST_POSTGRES PGPASSFILE="$server/pgpass"
fi

# The areas whose code runs on more than one thread. Records, analytics,
# charts, widgets and extensions compute on plain values, and the host's
# tests run the host in processes of its own: those are for the second build.
# The C interface (c) hands every call to its session's own thread.
areas=(platform healthkit cloudkit settings store sync health modules c)
scripts/build.sh tsan "${areas[@]/%/_tests}"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build/tsan -j "$jobs" -L "^($(IFS='|'; echo "${areas[*]}"))\$" --output-on-failure

# Everything under AddressSanitizer + UndefinedBehaviorSanitizer. First the
# library as its users take it: installed into a fresh prefix, the examples
# in C, C++ and Python built and run against it, then the Python package's
# tests, all with the sanitizers' runtime in the process.
scripts/build.sh asan
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
scripts/examples.sh build/asan
TARNWELL_LIBRARY="$PWD/build/asan/libtarnwell.so" TARNWELL_BINARY="$PWD/build/asan/apps/tarnwell/tarnwell" \
  scripts/python.sh -m pytest -q -p no:cacheprovider python/tests
ctest --test-dir build/asan -j "$jobs" --output-on-failure
