"""Tarn queries from Python against the test device, and the error model:
None for absent records, exceptions carrying the rendered report for
failures."""

from __future__ import annotations

import ctypes
import dataclasses
import os
import struct

import pytest

import tarn
from tarn import _native as N
from tarn.library import AddressFamily, ContextState


def test_contexts_are_dataclasses_in_id_order(lib):
    ctxs = list(lib.contexts())
    assert [(c.id, c.name) for c in ctxs] == [
        (1, "default"), (2, "management"), (3, "red"), (5, "lab")]
    assert all(dataclasses.is_dataclass(c) for c in ctxs)
    lab = ctxs[-1]
    assert lab.state is ContextState.DOWN and lab.reason == 3
    assert lab.state_text == N.text(N.tarn.tarn_state2str(1))
    assert ctxs[0].state is ContextState.UP


def test_context_by_name_and_by_id(lib):
    red = lib.context("red")
    assert red == tarn.Context(3, "red", ContextState.UP, 0)
    assert lib.context(3) == red
    assert lib.context_id("lab") == 5


def test_absent_contexts_are_none(lib):
    assert lib.context("blue") is None
    assert lib.context(4) is None
    assert lib.context(0) is None
    assert lib.context_id("blue") is None
    assert tarn.take_log_lines() == []  # absence is never reported


def test_tables(lib):
    assert lib.table_id("red", AddressFamily.IPV4, "red-v4") == 16
    assert lib.table_id(3, 2, "red-v6") == 17
    assert lib.table_id("red", 2, "red-v4") is None
    assert lib.table_id("nowhere", 1, "red-v4") is None
    assert lib.table(16) == tarn.Table(16, 3, "red-v4", 0)
    assert lib.table(99) is None
    assert lib.table_names(16) == ("red-v4", "red")
    assert lib.table_names(99) == (None, None)
    assert lib.interface_table_id(200, 1, "red-v4") == 16
    assert lib.interface_table_id(300, 1, "red-v4") is None


def test_interfaces_and_their_contexts(lib):
    assert lib.interface_context(200) == tarn.InterfaceContext(200, 3, "red")
    assert lib.interface_context(100).context_name == "management"
    assert lib.interface_context(400) is None
    assert [i.ifindex for i in lib.interfaces()] == [100, 200, 300]
    assert [i.ifindex for i in lib.interfaces("red")] == [200]
    assert list(lib.interfaces("blue")) == []


def test_usable_and_ready(lib):
    assert lib.is_interface_usable(200)
    assert not lib.is_interface_usable(300)  # "lab" is down
    assert lib.is_interface_ready(300)
    assert not lib.is_interface_ready(400)


def test_attributes(lib):
    assert lib.route_limits(16) == tarn.RouteLimits(16, 100000, 80000, 80, 1)
    assert lib.route_limits(17) is None
    assert lib.site_of_origin(300) == tarn.SiteOfOrigin(1, 0x0002FDE800000009)
    assert lib.site_of_origin(200) is None
    assert lib.vpn_id("red") == tarn.VpnId((65001, 1, 100))
    assert lib.vpn_id("lab") is None


def test_as_format_is_the_default_until_tracked(lib, client):
    assert lib.as_format == 1
    assert not lib.cache_enabled
    client.enable_cache(gyre=False)
    assert lib.cache_enabled
    assert lib.as_format == 2
    client.disable_cache()
    assert lib.as_format == 1


def test_open_twice_gives_two_handles_on_one_library(lib):
    with tarn.open() as again:
        assert again is not lib and again.root == lib.root


def test_closed_library_raises(lib):
    lib.close()
    assert not lib.is_open
    with pytest.raises(tarn.NotInitialisedError) as err:
        lib.context_id("red")
    assert "the library is closed" in str(err.value)
    with pytest.raises(tarn.NotInitialisedError):
        lib.context_id("red")
    with pytest.raises(tarn.NotInitialisedError):
        list(lib.contexts())
    with pytest.raises(tarn.NotInitialisedError):
        lib.client()


def test_the_c_librarys_own_report_of_a_closed_library(lib):
    lib.close()
    assert N.tarn.tarn_get_context_id(b"red") == 0
    assert tarn.take_log_lines() == [
        "<<%TARN-3-TARN_LIBINIT>> Unable to retrieve context id, TARN library "
        "not initialized by client"]


def test_a_cell_the_library_does_not_serve_raises(lib):
    N.host.tarnhost_cell_set(2)
    try:
        with pytest.raises(tarn.CellError) as err:
            lib.context("red")
        assert err.value.code == "TARN_CELL"
        assert "ctx range" in err.value.log_line
    finally:
        N.host.tarnhost_cell_reset()
    assert lib.context_id("red") == 3


def test_open_in_a_cell_the_library_does_not_serve(device):
    N.host.tarnhost_cell_set(3)
    try:
        with pytest.raises(tarn.CellError) as err:
            tarn.open()
        assert "ctx range" in err.value.log_line
    finally:
        N.host.tarnhost_cell_reset()
    with tarn.open() as lib:
        assert lib.context_id("red") == 3


def test_device_not_up_carries_the_report():
    with tarn.Device.temporary():
        with pytest.raises(tarn.DeviceNotUpError) as err:
            tarn.open()
    assert err.value.code == "TARN_SUPV"
    assert err.value.log_line in str(err.value)


def test_database_read_failure_raises_not_none(lib):
    fault = N.host.tarnhost_fault_set
    fault(b"kvs_read", 5, 1)
    try:
        with pytest.raises(tarn.TarnError) as err:
            lib.context_id("red")
        assert err.value.code == "TARN_KVS_READ"
        assert f"pid {os.getpid()}" in err.value.log_line
    finally:
        N.host.tarnhost_fault_clear_all()
    assert lib.context_id("red") == 3


def test_walks_may_be_interleaved(lib):
    outer = lib.contexts()
    assert next(outer).id == 1
    inner = list(lib.interfaces())
    assert len(inner) == 3
    assert [c.id for c in outer] == [2, 3, 5]


def test_config_change_needs_a_registered_client(lib):
    with pytest.raises(tarn.TarnError) as err:
        lib.send_config_change(1, "red", name="bgp")
    assert err.value.log_line is not None


def test_config_change_reaches_a_subscriber(lib, client):
    with tarn.Publisher() as listener:
        # The service's side: a handle subscribed to the notice's opcode.
        assert N.host.tarnhost_bus_subscribe(listener.handle, 51222, 1) == 0
        lib.send_config_change(7, "red", name="bgp", param=9, entries=[1, 2, 3])
        raw = N.host.tarnhost_bus_recv_ms(listener.handle, 5000)
        assert raw
        try:
            assert N.host.bus_opc_get(raw) == 51222
            n = ctypes.c_uint32()
            data = ctypes.string_at(N.host.bus_payload_get(raw, ctypes.byref(n)), n.value)
        finally:
            N.host.bus_drop(listener.handle, raw)
    typ, param, name, ctx, count = struct.unpack_from("=II33s33sH", data)
    entries = struct.unpack_from("=3I", data, 76)
    assert (typ, param, count, entries) == (7, 9, 3, (1, 2, 3))
    assert name.rstrip(b"\0") == b"bgp" and ctx.rstrip(b"\0") == b"red"
    with pytest.raises(ValueError):
        lib.send_config_change(1, "red", entries=[0] * 70000)
