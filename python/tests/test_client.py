"""The client side from Python: registration, caches, the dispatch loop in
its forms (iterator, callback, poll, selectors, asyncio), cache dumps, and
a service and a client in two processes meeting on the bus."""

from __future__ import annotations

import asyncio
import selectors
import struct
import time

import pytest

import tarn
from conftest import start_child

AS_FORMAT_CHANGE = {"changes": [{"change": "as_format", "format": 4}]}


def test_client_binds_an_access_point_and_registers(client):
    assert 1100 <= client.sap <= 1199
    with tarn.Publisher() as pub:
        assert client.handle in pub.subscribers(51201)  # Tarn registration
        assert client.handle in pub.subscribers(51214)  # Gyre notifications
        # Attribute changes come with cache mode.
        assert client.handle not in pub.subscribers(51226)
        client.enable_cache()
        assert client.handle in pub.subscribers(51226)
        client.disable_cache()
        assert client.handle not in pub.subscribers(51226)


def test_close_withdraws_the_registration(lib):
    c = lib.client()
    handle = c.handle
    c.close()
    with tarn.Publisher() as pub:
        assert handle not in pub.subscribers(51201)
        assert handle not in pub.subscribers(51214)
    c.close()  # idempotent


def test_dynamic_handle_and_taken_access_point(lib):
    with lib.client(sap=-1) as c:
        assert c.sap == -1
        # Nobody can address a dynamic handle.
        with pytest.raises(LookupError):
            tarn.fetch_cache_dump(c.handle)
    with lib.client(sap=1500):
        with pytest.raises(OSError):
            lib.client(sap=1500)


def test_messages_iterator_applies_notifications(device, lib, client):
    client.enable_cache()
    assert lib.as_format == 2
    device.apply(AS_FORMAT_CHANGE)
    msgs = list(client.messages(timeout=2, count=1))
    assert len(msgs) == 1
    msg = msgs[0]
    assert (msg.opcode, msg.name, msg.result, msg.handled) == (
        51226, "TARN_ATTR_CHANGE", 1, True)
    assert struct.unpack_from("=H", msg.payload, 2)[0] == 1
    assert lib.as_format == 4
    assert client.receive(timeout=0) is None


def test_without_cache_only_gyre_notifications_come(device, lib, client):
    device.apply({"changes": [{"change": "as_format", "format": 4},
                              {"change": "create_topology", "topology": 40}]})
    msgs = list(client.messages(timeout=1))
    assert [m.opcode for m in msgs] == [51208]
    assert lib.as_format == 1  # not tracked


def test_callback_loop_and_poll(device, lib, client):
    client.enable_cache()
    device.apply({"changes": [{"change": "create_topology", "topology": 40},
                              {"change": "as_format", "format": 5}]})
    seen = []
    n = client.run(seen.append, timeout=2, count=2)
    assert n == 2
    assert [m.opcode for m in seen] == [51208, 51226]
    assert seen[0].handled and seen[0].result == 0
    assert 40 in [t.id for t in lib.gyre.topologies()]
    assert client.poll() == []


def test_callback_returning_false_stops(device, client):
    client.enable_cache()
    device.apply({"changes": [{"change": "as_format", "format": 5},
                              {"change": "as_format", "format": 6}]})
    assert client.run(lambda m: False, timeout=2) == 1
    assert len(client.poll()) == 1


def test_selectors_wait_on_the_descriptor(device, lib, client):
    client.enable_cache()
    sel = selectors.DefaultSelector()
    sel.register(client, selectors.EVENT_READ)
    try:
        assert sel.select(timeout=0) == []
        device.apply(AS_FORMAT_CHANGE)
        events = sel.select(timeout=5)
        assert len(events) == 1 and events[0][0].fileobj is client
        msgs = client.poll()
        assert [m.opcode for m in msgs] == [51226]
        assert sel.select(timeout=0) == []
    finally:
        sel.close()
    assert lib.as_format == 4


def test_asyncio_receives_and_dispatches(device, lib, client):
    client.enable_cache()

    async def scenario():
        async def first_two():
            got = []
            async for msg in client.amessages():
                got.append(msg)
                if len(got) == 2:
                    return got

        task = asyncio.create_task(first_two())
        await asyncio.sleep(0.05)
        await asyncio.to_thread(device.apply, {"changes": [
            {"change": "as_format", "format": 8},
            {"change": "delete_cache"}]})
        return await asyncio.wait_for(task, 5)

    msgs = asyncio.run(scenario())
    assert [m.opcode for m in msgs] == [51226, 51226]
    assert lib.as_format == 8


def test_cache_dump_of_another_process(device):
    child = start_child("caching_client.py")
    try:
        ready = child.stdout.readline().split()
        assert ready[:1] == ["ready"], child.stderr.read()
        handle = int(ready[1])
        text = tarn.fetch_cache_dump(handle)
        assert text.strip(), "the dump printed nothing"
        for tpg in ("10", "20", "30"):
            assert tpg in text
        with pytest.raises(LookupError):
            tarn.fetch_cache_dump(999999)
    finally:
        with tarn.Publisher() as pub:
            pub.delete_caches()
        out, err = child.communicate(timeout=30)
    assert child.returncode == 0, err


def test_service_and_client_in_two_processes(device):
    client = start_child("caching_client.py")
    try:
        ready = client.stdout.readline().split()
        assert ready[:1] == ["ready"], client.stderr.read()
        assert ready[2] == "2"  # the format the device was loaded with
        service = start_child("service.py", "as_format=7", "delete_caches")
        s_out, s_err = service.communicate(timeout=30)
        assert service.returncode == 0, s_err
        assert s_out.splitlines() == ["sent as_format=7 to 1",
                                      "sent delete_caches to 1"]
        out, err = client.communicate(timeout=30)
    finally:
        if client.poll() is None:
            client.kill()
            client.wait()
    assert client.returncode == 0, err
    lines = out.splitlines()
    # The AS format the service stored is what the client now answers.
    assert lines[0] == "message 51226 1 as_format 7 vlan150 10"
    assert lines[1].startswith("message 51226 1 as_format 7 ")
    assert lines[2] == "done"
    with tarn.open() as lib:
        assert lib.refresh_as_format() == 7


@pytest.mark.parametrize("delay", [0.0, 0.01, 0.05])
def test_a_killed_client_does_not_disturb_the_service(device, lib, delay):
    child = start_child("caching_client.py")
    assert child.stdout.readline().startswith("ready")
    with tarn.Publisher() as pub:
        assert len(pub.subscribers(51226)) == 1
        pub.set_as_format(3)
        time.sleep(delay)
        child.kill()
        child.communicate(timeout=30)
        # Publishing to the dead subscriber neither fails nor blocks, and
        # it is forgotten.
        pub.set_as_format(4)
        pub.set_as_format(5)
        assert pub.subscribers(51226) == []
    with lib.client() as c:
        c.enable_cache()
        assert lib.as_format == 5
