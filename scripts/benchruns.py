"""Runs of the benchmark binary, each benchmark in a process of its own.

A process of its own per run keeps one benchmark's memory and caches out of
the next one's figures; the best time of several runs is the nearest to the
code's own cost on a busy machine, and the median peak the typical memory.
"""

import json
import statistics
import subprocess
import sys

SCALE = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def listed(binary):
    """The benchmark names the binary has."""
    out = subprocess.run([binary, "--benchmark_list_tests"], check=True, capture_output=True, text=True).stdout
    return out.split()


def find(names, candidates):
    """The first name that is one of `candidates`, "X/" meaning X or X with arguments."""
    for candidate in candidates:
        match = [name for name in names if name == candidate.rstrip("/") or name.startswith(candidate)]
        if match:
            return match[0]
    return None


def run(binary, name):
    """One run of one benchmark: its time in seconds and its counters."""
    # The names hold letters, digits, '_', '/' and ':' only: no regex escapes needed.
    out = subprocess.run([binary, f"--benchmark_filter=^{name}$", "--benchmark_format=json"],
                         check=True, capture_output=True, text=True).stdout
    result = json.loads(out)["benchmarks"][0]
    if result.get("error_occurred"):
        sys.exit(f"{name} in {binary}: {result.get('error_message')}")
    return {"time": result["real_time"] * SCALE[result["time_unit"]], "peakMiB": result.get("peakMiB")}


def typical(samples, metric):
    """The best time, or the median of another metric; None without values."""
    values = [sample[metric] for sample in samples if sample.get(metric) is not None]
    if not values:
        return None
    return min(values) if metric == "time" else statistics.median(values)


def noise(samples, metric):
    """Half the range of the runs over their median, or None for one run."""
    values = [sample[metric] for sample in samples if sample.get(metric) is not None]
    if len(values) < 2 or statistics.median(values) <= 0:
        return None
    return (max(values) - min(values)) / 2 / statistics.median(values)


def shown(seconds):
    """A time in the unit that reads best."""
    if seconds is None:
        return "n/a"
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if seconds >= scale:
            return f"{seconds / scale:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"
