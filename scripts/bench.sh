#!/usr/bin/env bash
# Runs the benchmarks that carry a target, each in a process of its own and
# with its floor (the plain SQL of the same work) in the same run, writes
# every run to build/bench/results.json and prints one line per target: the
# figure, its floor, the ratio, the target and whether it holds.
#   scripts/bench.sh [--repetitions N]
# Builds build/bench (optimised, through ccache when it is installed). Each
# benchmark runs N times (default 3), the figures taking turns; a line shows
# the best time, the median peak memory, and the noise of the runs.
set -euo pipefail
cd "$(dirname "$0")/.."

repetitions=3
while [ $# -gt 0 ]; do
  case "$1" in
    --repetitions) repetitions="${2:?--repetitions needs a number}"; shift 2 ;;
    -h | --help) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "bench.sh: unknown argument \"$1\"" >&2; exit 2 ;;
  esac
done
[[ "$repetitions" =~ ^[1-9][0-9]*$ ]] || { echo "bench.sh: --repetitions takes a positive number" >&2; exit 2; }

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
mkdir -p build/bench
if ! { cmake -S . -B build/bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNWELL_BUILD_TESTS=OFF \
  -DTARNWELL_BUILD_BENCHMARKS=ON "${launcher[@]}" &&
  cmake --build build/bench --target tarnwell_bench -j "${JOBS:-$(nproc)}"; } >build/bench/build.log 2>&1; then
  tail -20 build/bench/build.log >&2
  echo "bench.sh: the build failed (whole log: build/bench/build.log)" >&2
  exit 1
fi

exec python3 - build/bench/bench/tarnwell_bench "$repetitions" build/bench/results.json <<'EOF'
import json
import sys

sys.path.insert(0, "scripts")
from benchruns import listed, noise, run, shown, typical  # noqa: E402

binary, repetitions, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]

# Label, benchmark, its floor (or None), the most the ratio to the floor
# may be (or None), and the most the figure itself may be (or None).
TIMES = [
    ("year chart, 500 a day, cold", "BM_YearChartOfScreenTime/500", "BM_SelectYearOfPickups/500", 2.0, None),
    ("year chart, 150 a day, cold", "BM_YearChartOfScreenTime/150", "BM_SelectYearOfPickups/150", None, None),
    ("year chart, 500 a day, kept", "BM_YearChartOfScreenTimeKept/500", "BM_SelectYearOfKeptDays/500", 2.0, 5e-3),
    ("month chart, 500 a day, cold", "BM_MonthChartOfScreenTime/500", None, None, None),
    ("ten kept years summed", "BM_TenKeptYearsSummed", None, None, None),
    ("streaks of ten kept years", "BM_StreaksOfTenKeptYears", None, None, None),
    ("heavy day", "BM_EventsOfDayOfAHeavyDay", "BM_SelectRowsOfAHeavyDay", 1.5, None),
    ("today's live update", "BM_EditPickupOfToday", None, None, None),
    ("addPickup", "BM_AddPickup", "BM_RawInsert", 1.2, None),
    ("editPickup", "BM_EditPickup", "BM_RawUpdate", 1.2, None),
]
# Label, benchmark, the most its peak may rise in MiB (or None).
PEAKS = [
    ("push 100,000, peak", "BM_CloudPushPickups/folder/pickups:100000/iterations:1/manual_time", 64.0),
    ("push 400,000, peak", "BM_CloudPushPickups/folder/pickups:400000/iterations:1/manual_time", 64.0),
    ("health import, peak", "BM_ImportHealthExport/iterations:1/real_time", None),
]

available = set(listed(binary))
wanted = []
for _, name, floor, _, _ in TIMES:
    wanted += [name] + ([floor] if floor else [])
wanted += [name for _, name, _ in PEAKS]
missing = [name for name in wanted if name not in available]
if missing:
    sys.exit("bench.sh: the binary lacks " + ", ".join(missing))

samples = {name: [] for name in dict.fromkeys(wanted)}
for repetition in range(repetitions):
    # Figure and floor take turns, in both orders, so a drifting machine favours neither.
    order = list(samples) if repetition % 2 == 0 else list(reversed(samples))
    for name in order:
        print(f"  {repetition + 1}/{repetitions} {name}", file=sys.stderr, flush=True)
        samples[name].append(run(binary, name))
with open(out, "w") as file:
    json.dump({"repetitions": repetitions, "runs": samples}, file, indent=1)


def spread(*names):
    values = [noise(samples[name], "time") for name in names if name]
    values = [value for value in values if value is not None]
    return f"{max(values) * 100:.0f} %" if values else ""


failed = 0
print(f"\n{repetitions} run(s) each, in processes of their own: the best time, the median peak")
print(f"{'':30} {'figure':>10} {'floor':>10} {'ratio':>7} {'noise':>6}  target")
for label, name, floor, most, limit in TIMES:
    figure = typical(samples[name], "time")
    base = typical(samples[floor], "time") if floor else None
    ratio = figure / base if base else None
    targets, holds = [], True
    if most is not None:
        targets.append(f"ratio <= {most}")
        holds = holds and ratio is not None and ratio <= most
    if limit is not None:
        targets.append(f"<= {shown(limit)}")
        holds = holds and figure <= limit
    verdict = ("holds" if holds else "MISSED") if targets else ""
    failed += 0 if holds else 1
    ratio_text = f"{ratio:.2f}" if ratio is not None else ""
    print(f"{label:30} {shown(figure):>10} {shown(base) if floor else '':>10} {ratio_text:>7} "
          f"{spread(name, floor):>6}  {', '.join(targets)} {verdict}".rstrip())
for label, name, limit in PEAKS:
    peak = typical(samples[name], "peakMiB")
    holds = limit is None or (peak is not None and peak <= limit)
    failed += 0 if holds else 1
    target = f"<= {limit:g} MiB {'holds' if holds else 'MISSED'}" if limit is not None else ""
    print(f"{label:30} {peak if peak is not None else float('nan'):>7.2f} MiB {'':>10} {'':>7} {'':>6}  {target}".rstrip())
print(f"\nall runs: {out}")
sys.exit(1 if failed else 0)
EOF
