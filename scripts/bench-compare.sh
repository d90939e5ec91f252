#!/usr/bin/env bash
# Compares the benchmarks of the store's write path and of sync with those of
# an earlier commit, in one run, and prints after/before ratios:
#   scripts/bench-compare.sh [--repetitions N] [REF]
# REF (default 4a475f3) is built in build/compare/<commit>, the working tree in
# build/release, both optimised and through ccache when it is installed (source
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

# Builds the benchmarks of the sources in $1 into $1/build/release; the same
# layout for both sides lets ccache reuse what they have in common.
build() {
  local log="$1/build/bench-compare.log"
  mkdir -p "$1/build"
  if ! { cmake -S "$1" -B "$1/build/release" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARNWELL_BUILD_BENCHMARKS=ON "${launcher[@]}" &&
    cmake --build "$1/build/release" --target tarnwell_bench -j "${JOBS:-2}"; } >"$log" 2>&1; then
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

exec python3 - "$before/build/release/bench/tarnwell_bench" build/release/bench/tarnwell_bench "$repetitions" <<'EOF'
import json, statistics, subprocess, sys

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
SCALE = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def names(binary):
    listed = subprocess.run([binary, "--benchmark_list_tests"], check=True, capture_output=True, text=True).stdout
    found = {}
    for key, candidates in BENCHMARKS:
        for candidate in candidates:
            match = [name for name in listed.split() if name == candidate.rstrip("/") or name.startswith(candidate)]
            if match:
                found[key] = match[0]
                break
    return found


def run(binary, name):
    # The names hold letters, digits, '_', '/' and ':' only: no regex escapes needed.
    out = subprocess.run([binary, f"--benchmark_filter=^{name}$", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True).stdout
    result = json.loads(out)["benchmarks"][0]
    if result.get("error_occurred"):
        sys.exit(f"bench-compare.sh: {name} in {binary}: {result.get('error_message')}")
    return {"time": result["real_time"] * SCALE[result["time_unit"]], "peakMiB": result.get("peakMiB")}


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


# Other work on the machine only ever adds time, so the best run is the
# nearest to the code's own cost; memory does not wait, its median is kept.
def typical(side, key, metric):
    values = [sample[metric] for sample in samples[(side, key)] if sample[metric] is not None]
    if not values:
        return None
    return min(values) if metric == "time" else statistics.median(values)


# Half the range of the runs over their median, the worse of the two sides:
# a ratio closer to 1 than this is within the machine's own noise.
def spread(key, metric):
    worst = None
    for side in sides:
        values = [sample[metric] for sample in samples[(side, key)] if sample[metric] is not None]
        if len(values) > 1 and statistics.median(values) > 0:
            half = (max(values) - min(values)) / 2 / statistics.median(values)
            worst = half if worst is None else max(worst, half)
    return f"{worst * 100:.1f} %" if worst is not None else ""


def shown(value, unit):
    if value is None:
        return "n/a"
    return f"{value / 1e-6:.1f} us" if unit == "us" else f"{value:.2f} {unit}"


print(f"\n{repetitions} run(s) each, in processes of their own: the best time, the median peak")
print(f"{'':20} {'before':>12} {'after':>12} {'after/before':>13} {'noise':>7}  target")
for label, key, metric, unit, target in ROWS:
    old, new = typical("before", key, metric), typical("after", key, metric)
    ratio = f"{new / old:.3f}" if old and new is not None else "n/a"
    print(f"{label:20} {shown(old, unit):>12} {shown(new, unit):>12} {ratio:>13} {spread(key, metric):>7}  {target}")
small, large = typical("after", "push100k", "peakMiB"), typical("after", "push400k", "peakMiB")
if small and large is not None:
    print(f"\npush peak, 400,000 over 100,000 pickups (after): {large / small:.2f}")
EOF
