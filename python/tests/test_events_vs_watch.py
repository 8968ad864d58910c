"""The events decoded here against what tarnctl watch (C++) read from the
very same notifications: the payload bytes, the opcode names and the facts
its change lines state."""

from __future__ import annotations

import json
import os
import subprocess

import tarn
from tarn import _native as N
from tarn import events as ev

CHANGES = {"changes": [
    {"change": "create_topology", "topology": 40},
    {"change": "topology_vlans", "topologies": [
        {"topology": 40, "active_vlans": "300-310,400"}]},
    {"change": "ftags", "ftags": [
        {"reason": "create", "ftag": 9, "topology": 40, "graph": 2,
         "flags": 6}]},
    {"change": "as_format", "format": 4}]}


def test_events_agree_with_tarnctl_watch(device, lib, client):
    client.enable_cache()
    watch = subprocess.Popen(
        [N.tarnctl_path(), "watch", "--json", "--count", "4", "--timeout", "20"],
        env=dict(os.environ, TARNHOST_ROOT=device.root),
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        start = json.loads(watch.stdout.readline())
        assert start["event"] == "start", start
        device.apply(CHANGES)
        mine = list(client.messages(timeout=5, count=4))
        out, err = watch.communicate(timeout=30)
    finally:
        if watch.poll() is None:
            watch.kill()
            watch.wait()
    theirs = [line for line in map(json.loads, out.splitlines())
              if line.get("event") == "notification"]
    assert len(theirs) == 4, out + err
    for msg, seen in zip(mine, theirs):
        e = msg.event
        assert e.raw.hex() == seen["payload"].lower()
        assert (msg.opcode, msg.name) == (seen["opcode"], seen["name"])
        change = seen["change"]
        if isinstance(e, ev.TopologyCreated):
            assert change.startswith(f"created: topology {e.topology} ")
        elif isinstance(e, ev.TopologyVlans):
            for rec in e.records:
                text = tarn.vlans.library_text(rec.vlans)
                assert f"topology {rec.topology} vlans {text} " in change
        elif isinstance(e, ev.FtagUpdate):
            for f in e.entries:
                assert (f"ftag {f.ftag} topology {f.topology} graph {f.graph} "
                        f"flags 0x{f.flags:x}") in change
        elif isinstance(e, ev.AsFormatChanged):
            assert change == f"kind 1: AS format {e.format}"
        else:
            raise AssertionError(f"unexpected {e!r}")
    assert [type(m.event) for m in mine] == [
        ev.TopologyCreated, ev.TopologyVlans, ev.FtagUpdate, ev.AsFormatChanged]
