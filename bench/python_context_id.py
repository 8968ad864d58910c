#!/usr/bin/python3
"""One Tarn query from Python beside the same query in C, in the same run.

The C figure is bench_queries' BM_ContextId (tarn_get_context_id over 256
names of a device of 4,000 contexts and 16,000 interfaces), run as a child
right before the Python loops; the Python figures are the same lookups on a
device built from the same description, through the bare ctypes call and
through Library.context_id().  Prints each time and its ratio to C's.

    TARN_LIBDIR=build/x86_64 bench/python_context_id.py [--bench build/x86_64/bench/bench_queries]
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
os.environ.setdefault("TARN_LIBDIR", str(REPO / "build" / "x86_64"))
sys.path.insert(0, str(REPO / "python"))

import tarn  # noqa: E402
from tarn import _native as N  # noqa: E402

CONTEXTS = 4000
INTERFACES = 16000


def description() -> dict:
    return {
        "cell": 2,
        "contexts": [{"id": i, "name": f"vrf{i}",
                      "tables": [{"id": 2 * i, "af": 1, "name": "t4"},
                                 {"id": 2 * i + 1, "af": 2, "name": "t6"}]}
                     for i in range(1, CONTEXTS + 1)],
        "interfaces": [{"ifindex": i, "iod": i, "name": f"e{i}",
                        "context": f"vrf{1 + i % CONTEXTS}"}
                       for i in range(1, INTERFACES + 1)],
    }


def c_time_ns(bench: Path, min_time: float) -> float | None:
    """BM_ContextId's CPU time per call in ns, or None when it cannot run."""
    if not bench.is_file():
        return None
    with tempfile.TemporaryDirectory(prefix="tarn-bench-") as tmp:
        out = Path(tmp) / "c.json"
        subprocess.run(
            [str(bench), "--benchmark_filter=^BM_ContextId$",
             f"--benchmark_min_time={min_time}", "--benchmark_repetitions=5",
             f"--benchmark_out={out}", "--benchmark_out_format=json"],
            capture_output=True, text=True, check=False)
        try:
            report = json.loads(out.read_text())
        except (OSError, ValueError):
            return None
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    times = []
    runs = report.get("benchmarks") if isinstance(report, dict) else None
    for run in runs or []:
        if (isinstance(run, dict) and run.get("run_name") == "BM_ContextId"
                and run.get("run_type") == "iteration"):
            t = run.get("cpu_time")
            unit = scale.get(run.get("time_unit", "ns"))
            if isinstance(t, (int, float)) and unit:
                times.append(float(t) * unit)
    # The best of the repetitions, as for the Python loops: the machine is
    # shared, and the least disturbed run is the one to compare.
    return min(times) if times else None


def per_call_ns(fn, names: list, min_time: float, repetitions: int = 5) -> float:
    """CPU time per call of fn over the names, each repetition running for
    min_time s; the best repetition."""
    best = float("inf")
    for _ in range(repetitions):
        calls = 0
        start = time.process_time()
        while True:
            for name in names:
                fn(name)
            calls += len(names)
            spent = time.process_time() - start
            if spent >= min_time:
                break
        best = min(best, spent * 1e9 / calls)
    return best


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bench", type=Path,
                        default=REPO / "build" / "x86_64" / "bench" / "bench_queries")
    parser.add_argument("--min-time", type=float, default=0.5)
    args = parser.parse_args()

    c_ns = c_time_ns(args.bench, args.min_time)
    names = [f"vrf{i * 13}" for i in range(1, 257)]
    raw_names = [n.encode() for n in names]
    with tarn.Device.temporary(description()):
        with tarn.open() as lib:
            assert all(lib.context_id(n) for n in names)
            raw_ns = per_call_ns(N.tarn.tarn_get_context_id, raw_names,
                                 args.min_time)
            py_ns = per_call_ns(lib.context_id, names, args.min_time)
    if c_ns is None:
        print(f"C: {args.bench} did not run; build it with "
              f"cmake --build --preset x86_64 --target bench_queries")
    else:
        print(f"C       tarn_get_context_id      {c_ns:9.1f} ns  (BM_ContextId)")
    print(f"Python  ctypes call              {raw_ns:9.1f} ns")
    print(f"Python  Library.context_id       {py_ns:9.1f} ns")
    if c_ns:
        print(f"ratio python_ctypes_context_id   {raw_ns / c_ns:8.2f} "
              f"({raw_ns:.1f} ns vs {c_ns:.1f} ns)")
        print(f"ratio python_context_id          {py_ns / c_ns:8.2f} "
              f"({py_ns:.1f} ns vs {c_ns:.1f} ns)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
