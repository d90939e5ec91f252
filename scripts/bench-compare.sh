#!/usr/bin/env bash
# Compares the benchmarks of the store's write path and of sync with those of
# an earlier commit, in one run, and prints after/before ratios:
#   scripts/bench-compare.sh [--repetitions N] [REF]
# REF (default 4a475f3) is built in build/compare/<commit>, the working tree in
# build/bench, both optimised and through ccache when it is installed (source
# the ccache settings first to share a warm cache). Each benchmark runs in a
# process of its own, before and after taking turns, N times (default 3); the
# table shows the best time, the median peak memory and the noise of the
# runs. A benchmark that REF does not have reads n/a.
set -euo pipefail
cd "$(dirname "$0")/.."

repetitions=3
ref=4a475f3
while [ $# -gt 0 ]; do
  case "$1" in
    --repetitions) repetitions="${2:?--repetitions needs a number}"; shift 2 ;;
    -h | --help) sed -n '2,11s/^# \{0,1\}//p' "$0"; exit 0 ;;
    -*) echo "bench-compare.sh: unknown option \"$1\"" >&2; exit 2 ;;
    *) ref="$1"; shift ;;
  esac
done
[[ "$repetitions" =~ ^[1-9][0-9]*$ ]] || { echo "bench-compare.sh: --repetitions takes a positive number" >&2; exit 2; }
commit=$(git rev-parse --verify --quiet "$ref^{commit}") || { echo "bench-compare.sh: no commit \"$ref\"" >&2; exit 1; }

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# Builds the benchmarks of the sources in $1 into $1/build/bench; the same
# layout for both sides lets ccache reuse what they have in common.
build() {
  local log="$1/build/bench-compare.log"
  mkdir -p "$1/build"
  if ! { cmake -S "$1" -B "$1/build/bench" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARNWELL_BUILD_TESTS=OFF -DTARNWELL_BUILD_BENCHMARKS=ON "${launcher[@]}" &&
    cmake --build "$1/build/bench" --target tarnwell_bench -j "${JOBS:-2}"; } >"$log" 2>&1; then
    tail -20 "$log" >&2
    echo "bench-compare.sh: building $2 failed (whole log: $log)" >&2
    exit 1
  fi
}

before="$PWD/build/compare/$commit"
if [ ! -f "$before/CMakeLists.txt" ]; then
  mkdir -p "$before"
  git archive "$commit" | tar -x -C "$before"
fi
echo "building $ref ($(git log -1 --format=%h "$commit")) and the working tree..." >&2
build "$before" "$ref"
build "$PWD" "the working tree"

exec python3 - "$before/build/bench/bench/tarnwell_bench" build/bench/bench/tarnwell_bench "$repetitions" <<'EOF'
import sys

sys.path.insert(0, "scripts")
from benchruns import find, listed, noise, run, typical  # noqa: E402

before, after, repetitions = sys.argv[1], sys.argv[2], int(sys.argv[3])

# Each benchmark by the names it may have, "X/" meaning X or X with arguments
# (older trees push a fixed 100,000 without one); then the rows of the table.
BENCHMARKS = [
    ("add", ["BM_AddPickup/"]),
    ("edit", ["BM_EditPickup/"]),
    ("push100k", ["BM_CloudPushPickups/folder/pickups:100000/", "BM_CloudPushPickups/folder/iterations:"]),
    ("push400k", ["BM_CloudPushPickups/folder/pickups:400000/"]),
    ("pull100k", ["BM_CloudPullPickups/folder/"]),
]
ROWS = [
    ("addPickup", "add", "time", "us", "after/before <= 1.10"),
    ("editPickup", "edit", "time", "us", "after/before <= 1.10"),
    ("push 100,000", "push100k", "time", "s", "after/before <= 1.00"),
    ("pull 100,000", "pull100k", "time", "s", "after/before <= 1.00"),
    ("push 400,000", "push400k", "time", "s", ""),
    ("push 100,000 peak", "push100k", "peakMiB", "MiB", "after <= 64 MiB"),
    ("push 400,000 peak", "push400k", "peakMiB", "MiB", "flat: about the 100,000 peak"),
]


def names(binary):
    all_names = listed(binary)
    return {key: name for key, candidates in BENCHMARKS if (name := find(all_names, candidates))}


sides = {"before": before, "after": after}
found = {side: names(binary) for side, binary in sides.items()}
samples = {(side, key): [] for side in sides for key, _ in BENCHMARKS}
for repetition in range(repetitions):
    # Taking turns in both orders keeps a drifting machine from favouring one side.
    order = ["before", "after"] if repetition % 2 == 0 else ["after", "before"]
    for key, _ in BENCHMARKS:
        for side in order:
            if key in found[side]:
                print(f"  {repetition + 1}/{repetitions} {side:6} {found[side][key]}", file=sys.stderr, flush=True)
                samples[(side, key)].append(run(sides[side], found[side][key]))


# A ratio closer to 1 than the worse side's noise is within the machine's own.
def spread(key, metric):
    values = [noise(samples[(side, key)], metric) for side in sides]
    values = [value for value in values if value is not None]
    return f"{max(values) * 100:.1f} %" if values else ""


def shown(value, unit):
    if value is None:
        return "n/a"
    return f"{value / 1e-6:.1f} us" if unit == "us" else f"{value:.2f} {unit}"


print(f"\n{repetitions} run(s) each, in processes of their own: the best time, the median peak")
print(f"{'':20} {'before':>12} {'after':>12} {'after/before':>13} {'noise':>7}  target")
for label, key, metric, unit, target in ROWS:
    old, new = typical(samples[("before", key)], metric), typical(samples[("after", key)], metric)
    ratio = f"{new / old:.3f}" if old and new is not None else "n/a"
    print(f"{label:20} {shown(old, unit):>12} {shown(new, unit):>12} {ratio:>13} {spread(key, metric):>7}  {target}")
small, large = typical(samples[("after", "push100k")], "peakMiB"), typical(samples[("after", "push400k")], "peakMiB")
if small and large is not None:
    print(f"\npush peak, 400,000 over 100,000 pickups (after): {large / small:.2f}")
EOF
