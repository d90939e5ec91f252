#!/usr/bin/env bash
# Runs Debian's Python (where bootstrap.sh installs pytest and pandas) over
# the libtarnwell in $TARNWELL_LIBRARY or on LD_LIBRARY_PATH:
#   scripts/python.sh ARGS...
# Python loads the library with dlopen, too late for a sanitizer's runtime:
# for a library built with AddressSanitizer, the runtime is loaded first,
# with the C++ runtime whose throws it intercepts. Python keeps memory to
# its end by design, so leaks are not reported (the C tests report the
# library's own).
set -euo pipefail
library="${TARNWELL_LIBRARY:-}"
if [[ -z "$library" ]]; then
  for folder in ${LD_LIBRARY_PATH//:/ }; do
    [[ -e "$folder/libtarnwell.so.0.1" ]] && { library="$folder/libtarnwell.so.0.1"; break; }
  done
fi
if [[ -n "$library" ]] && readelf -d "$library" | grep -q 'Shared library: \[libasan'; then
  LD_PRELOAD="$(readlink -f "$(gcc -print-file-name=libasan.so)") $(readlink -f "$(g++ -print-file-name=libstdc++.so)")"
  # Last, so that it holds over a detect_leaks=1 the caller exported.
  export LD_PRELOAD ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
fi
exec /usr/bin/python3 "$@"
