#!/usr/bin/python3
"""Each simple query through the tarn package beside its bare ctypes call,
and bitmap-to-frozenset conversion beside building the same frozenset from
a range, in one run.

Every pair is measured in the same process on the same device, alternating
repetitions, and the best repetition of each is kept (the machine is
shared).  Prints each time and the ratio package / baseline.

    TARN_LIBDIR=build/x86_64 bench/python_queries.py [--min-time 0.2]
"""

from __future__ import annotations

import argparse
import ctypes
import os
import sys
import time
from pathlib import Path
from typing import Any, Callable

REPO = Path(__file__).resolve().parent.parent
os.environ.setdefault("TARN_LIBDIR", str(REPO / "build" / "x86_64"))
sys.path.insert(0, str(REPO / "python"))

import tarn  # noqa: E402
from tarn import _native as N  # noqa: E402
from tarn import _structs as S  # noqa: E402
from tarn import vlans  # noqa: E402

DEVICE = {
    "contexts": [{"id": i, "name": f"vrf{i}",
                  "tables": [{"id": 2 * i, "af": 1, "name": "t4"}]}
                 for i in range(1, 201)],
    "interfaces": [{"ifindex": i, "iod": i, "name": f"e{i}",
                    "context": f"vrf{1 + i % 200}", "active_vlans": "100-199"}
                   for i in range(1, 201)],
    "topologies": [{"id": 10, "active_vlans": "100-199",
                    "ftags": [{"ftag": 1, "graph": 1, "flags": 20}]},
                   {"id": 20, "active_vlans": "200-299"}],
}


def per_call_ns(fn: Callable[[], Any], min_time: float) -> float:
    """CPU time per call of fn over one repetition of at least min_time s."""
    calls = 0
    start = time.process_time()
    while True:
        for _ in range(200):
            fn()
        calls += 200
        spent = time.process_time() - start
        if spent >= min_time:
            return spent * 1e9 / calls


def pair(package: Callable[[], Any], baseline: Callable[[], Any],
         min_time: float, repetitions: int = 5) -> tuple[float, float]:
    best_p = best_b = float("inf")
    for _ in range(repetitions):
        best_b = min(best_b, per_call_ns(baseline, min_time))
        best_p = min(best_p, per_call_ns(package, min_time))
    return best_p, best_b


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--min-time", type=float, default=0.2)
    args = parser.parse_args()
    t = args.min_time
    rows: list[tuple[str, float, float, str]] = []
    with tarn.Device.temporary(DEVICE):
        with tarn.open() as lib:
            C = N.tarn
            info = S.ContextInfo()
            ifc = S.IfContextInfo()
            tbl = S.TableInfo()
            bmp = S.VlanBitmap()
            out16 = ctypes.c_uint16()
            g = lib.gyre
            cases: list[tuple[str, Callable[[], Any], Callable[[], Any]]] = [
                ("context_id", lambda: lib.context_id("vrf77"),
                 lambda: C.tarn_get_context_id(b"vrf77")),
                ("context", lambda: lib.context(77),
                 lambda: C.tarn_get_context_info(77, ctypes.byref(info))),
                ("table", lambda: lib.table(154),
                 lambda: C.tarn_get_table_info(154, ctypes.byref(tbl))),
                ("interface_context", lambda: lib.interface_context(33),
                 lambda: C.tarn_if_get_context_info(33, ctypes.byref(ifc))),
                ("is_interface_usable", lambda: lib.is_interface_usable(33),
                 lambda: C.tarn_is_if_usable(33)),
                ("vlan_topology", lambda: g.vlan_topology(150),
                 lambda: C.gyre_get_vlan_l2_tpg(150)),
                ("unicast_ftag", lambda: g.vlan_unicast_ftag(150),
                 lambda: C.gyre_get_unicast_ftag_by_vlan(150, ctypes.byref(out16))),
                ("topology_vlans (100)", lambda: g.topology_vlans(10),
                 lambda: C.gyre_get_l2_tpg_act_vlans_by_name(b"10", ctypes.byref(bmp))),
            ]
            for name, package, raw in cases:
                p, b = pair(package, raw, t)
                rows.append((name, p, b, "bare ctypes call"))
    # The conversion alone, without the memo (every bitmap new), beside
    # building the same frozenset from a range.
    for label, members in (("100 VLANs", range(100, 200)),
                           ("4096 VLANs", range(4096))):
        raw_bits = vlans.bitmap_bytes(members, 512)
        p, b = pair(lambda: vlans.set_from_bitmap(raw_bits, memo=False),
                    lambda: frozenset(members), t)
        rows.append((f"bitmap -> frozenset, {label}", p, b,
                     "frozenset(range)"))
        p_memo, _ = pair(lambda: vlans.set_from_bitmap(raw_bits),
                         lambda: None, t, 2)
        rows.append((f"  again (memo), {label}", p_memo, b, "frozenset(range)"))
    width = max(len(r[0]) for r in rows)
    for name, p, b, base in rows:
        print(f"{name:<{width}}  {p / 1000:8.2f} us  vs {b / 1000:8.2f} us "
              f"({base})  ratio {p / b:5.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
