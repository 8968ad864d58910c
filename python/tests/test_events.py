"""Notifications decoded into typed, frozen, hashable events; the raw bytes
stay reachable.  amessages() ends when its client closes, and a cache dump
from a client nobody serves fails in time with the cause."""

from __future__ import annotations

import asyncio
import dataclasses
import struct
import threading
import time

import pytest

import tarn
from tarn import events as ev


def test_opcodes_are_an_enum_with_the_hosts_names(client):
    assert tarn.Opcode.TARN_ATTR_CHANGE == 51226
    assert tarn.Opcode(51214).name == "GYRE_TPG_VLANS"


def test_every_change_comes_as_its_event(device, client):
    client.enable_cache()
    device.apply({"changes": [
        {"change": "create_topology", "topology": 40},
        {"change": "topology_vlans", "topologies": [
            {"topology": 40, "active_vlans": "300-310,400"}]},
        {"change": "ftags", "ftags": [
            {"reason": "create", "ftag": 9, "topology": 40, "graph": 2,
             "flags": 6}]},
        {"change": "as_format", "format": 4},
        {"change": "delete_topology_ftags", "topology": 40},
        {"change": "delete_topology", "topology": 40},
        {"change": "delete_cache"}]})
    msgs = list(client.messages(timeout=2, count=7))
    events = [m.event for m in msgs]
    assert [type(e) for e in events] == [
        ev.TopologyCreated, ev.TopologyVlans, ev.FtagUpdate,
        ev.AsFormatChanged, ev.TopologyFtagsDeleted, ev.TopologyDeleted,
        ev.CachesDeleted]
    assert events[0].topology == 40
    assert events[1].records == (ev.TopologyVlanSet(
        40, "40", frozenset(range(300, 311)) | {400}),)
    assert events[2].entries == (ev.FtagChange(1, 40, 2, 9, 6),)
    assert events[2].entries[0].reason_name == "CREATE"
    assert events[3].format == 4
    assert events[4].topology == 40 and events[4].ftags == {9}
    assert events[5].topology == 40
    for m, e in zip(msgs, events):
        assert e.raw == m.payload and e.opcode == m.opcode
        assert m.op is not None and m.op.name == m.name
        assert hash(e) == hash(ev.decode(m.opcode, m.payload))
        with pytest.raises(dataclasses.FrozenInstanceError):
            e.opcode = 1  # type: ignore[misc]


@pytest.mark.parametrize("opcode, payload, reason", [
    (51208, b"\0" * 23, "23 bytes; 24 needed"),
    (51214, struct.pack("=20xI", 2) + b"\0" * 556, "2 records announced, room for 1"),
    (51215, struct.pack("=I", 1) + b"\0" * 10, "1 entries announced, room for 0"),
    (51226, b"\0\0\x01\0", "4 bytes; 28 needed"),
    (51226, b"\0\0\x02\0" + b"\0" * 40, "44 bytes; 164 needed"),
    (51222, b"\0" * 75, "75 bytes; 76 needed"),
])
def test_short_payloads_are_malformed_events_not_exceptions(opcode, payload, reason):
    e = ev.decode(opcode, payload)
    assert isinstance(e, ev.Malformed)
    assert e.reason.endswith(reason)


def test_other_kinds_of_message():
    assert isinstance(ev.decode(51209, b""), ev.GyreNotification)
    assert ev.decode(51226, struct.pack("=HH", 0, 9)) == ev.AttributeChange(
        51226, struct.pack("=HH", 0, 9), 9)
    assert isinstance(ev.decode(12345, b"x"), ev.Other)
    notice = ev.decode(51223, struct.pack("=III", 0, 0, 20))
    assert notice == ev.FtagNotice(51223, notice.raw, False, 20)


def test_amessages_ends_when_its_client_closes_in_the_loop(lib):
    client = lib.client()

    async def scenario() -> list:
        got = []

        async def consume() -> None:
            async for msg in client.amessages():
                got.append(msg)

        task = asyncio.create_task(consume())
        await asyncio.sleep(0.05)
        client.close()
        await asyncio.wait_for(task, 5)
        return got

    assert asyncio.run(scenario()) == []


def test_amessages_ends_when_its_client_closes_from_another_thread(lib):
    client = lib.client()

    async def scenario() -> None:
        threading.Timer(0.1, client.close).start()
        async for _ in client.amessages():
            pass

    asyncio.run(asyncio.wait_for(scenario(), 5))
    assert client.closed


def test_a_dump_from_a_client_nobody_serves_fails_in_time(lib):
    with lib.client() as idle:
        start = time.monotonic()
        with pytest.raises(TimeoutError) as err:
            tarn.fetch_cache_dump(idle.handle, timeout=0.3)
        assert time.monotonic() - start < 3
    assert "did not answer within 0.3 s" in str(err.value)
    assert "nobody dispatches its messages" in str(err.value)


def test_a_dump_timeout_is_checked():
    with pytest.raises(ValueError):
        tarn.fetch_cache_dump(1, timeout=-1)
