"""Notification payloads decoded through libtarnhost: the same definition
as the C++ interface and ``tarnctl watch --json``, fed the same payloads."""

from __future__ import annotations

import json
import struct
import subprocess
import time
from pathlib import Path

from tarn import _native as N
from tarn import notifications

REPO = Path(__file__).resolve().parents[2]


def test_topology_created():
    payload = bytes(20) + struct.pack("<I", 42)
    assert notifications.decode(51208, payload) == {
        "type": "topology_created", "complete": True, "problem": None, "topology": 42}


def test_short_and_truncated_payloads_are_told():
    assert notifications.decode(51208, bytes(23))["problem"] == \
        "a payload of 23 bytes is shorter than the 24 bytes it needs"
    assert notifications.decode(51210, None)["problem"] == "no payload"
    ftags = struct.pack("<I", 3) + struct.pack("<IIHHI", 1, 7, 1, 100, 0x14) + bytes(1032)
    d = notifications.decode(51215, ftags)
    assert d["complete"] is False
    assert d["problem"] == "a payload of 1052 bytes holds 1 whole entries of the 3 it declares"
    assert d["entries"] == [{"reason": 1, "reason_name": "GYRE_FTAG_CREATE", "topology": 7,
                             "graph": 1, "ftag": 100, "flags": 0x14}]


def test_dump_page():
    assert notifications.decode_dump_page(struct.pack("<I", 0))["status"] == 0


def test_the_same_as_tarnctl_watch(tmp_path):
    """Every payload the passive watcher printed decodes here to the very
    object it printed beside it."""
    env = {"TARNHOST_ROOT": str(tmp_path / "root"), "PATH": "/usr/bin:/bin"}
    tarnctl = N.tarnctl_path()
    subprocess.run([tarnctl, "load", str(REPO / "examples/device.json")], env=env,
                   check=True, capture_output=True)
    watch = subprocess.Popen([tarnctl, "watch", "--passive", "--json", "--count", "8",
                              "--timeout", "60"], env=env, stdout=subprocess.PIPE, text=True)
    assert '"start"' in watch.stdout.readline()
    subprocess.run([tarnctl, "apply", str(REPO / "examples/changes.json")], env=env,
                   check=True, capture_output=True)
    out, _ = watch.communicate(timeout=60)
    events = [json.loads(line) for line in out.splitlines() if '"notification"' in line]
    assert len(events) == 8
    for e in events:
        payload = bytes.fromhex(e["payload"])
        assert notifications.decode(e["opcode"], payload) == e["decoded"]
