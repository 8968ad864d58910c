"""Lifetimes: libraries and clients are objects that ordinary Python code
opens, nests and closes; none of them can disable another, a library
answers for the device it was opened on, and a closed one always raises."""

from __future__ import annotations

import pytest

import tarn
from conftest import DEVICE

AS_FORMAT_4 = {"changes": [{"change": "as_format", "format": 4}]}


def test_closing_a_second_client_leaves_the_first_one_working(device, lib):
    with lib.client() as first:
        first.enable_cache()
        with lib.client(sap=-1):
            pass
        device.apply(AS_FORMAT_4)
        msgs = list(first.messages(timeout=2, count=1))
        assert [m.result for m in msgs] == [1]
        assert lib.as_format == 4
        assert lib.cache_enabled and lib.gyre.cache_enabled


def test_a_second_client_turning_its_cache_off_leaves_the_first_ones(lib):
    with lib.client() as first, lib.client() as second:
        first.enable_cache()
        second.enable_cache()
        second.disable_cache()
        assert lib.cache_enabled and lib.gyre.cache_enabled
        second.close()
        assert lib.cache_enabled and lib.as_format == 2
        first.disable_cache()
        assert not lib.cache_enabled and not lib.gyre.cache_enabled


def test_the_older_client_keeps_receiving_when_the_newer_closes(device, lib):
    with lib.client() as first:
        second = lib.client()
        second.enable_cache()
        second.close()
        first.enable_cache()
        device.apply(AS_FORMAT_4)
        assert [m.handled for m in first.messages(timeout=2, count=1)] == [True]
        assert lib.as_format == 4


def test_a_nested_open_is_harmless(lib):
    def helper() -> int:
        with tarn.open() as inner:
            assert inner is not lib and inner.is_open
            found = inner.context_id("red")
            assert found is not None
            return found

    assert helper() == 3
    assert lib.is_open
    assert lib.context_id("red") == 3
    assert [c.id for c in lib.contexts()] == [1, 2, 3, 5]


def test_the_library_closes_with_its_last_handle(device):
    outer = tarn.open()
    inner = tarn.open()
    outer.close()
    assert inner.context_id("red") == 3
    inner.close()
    # Both closed: the C library is closed too, and a new open starts it.
    with tarn.open() as again:
        assert again.context_id("red") == 3


def test_a_closed_library_raises_whatever_the_database_holds(lib):
    with tarn.open() as other:
        lib.close()
        assert other.context_id("red") == 3  # the C library is still open
        for query in (lambda: lib.context_id("red"), lambda: lib.context(3),
                      lambda: lib.gyre.vlan_topology(150),
                      lambda: lib.gyre.topology_vlans(10),
                      lambda: lib.gyre.ftag_topology(1),
                      lambda: list(lib.contexts()),
                      lambda: list(lib.gyre.ftags()),
                      lambda: lib.as_format, lambda: lib.client()):
            with pytest.raises(tarn.NotInitialisedError):
                query()


def test_closed_gyre_queries_raise_even_from_the_cache(lib):
    with lib.client() as c:
        c.enable_cache()
        with tarn.open() as other:
            lib.close()
            with pytest.raises(tarn.NotInitialisedError):
                lib.gyre.vlan_topology(150)
            assert other.gyre.vlan_topology(150) == 10


def test_a_library_answers_only_for_its_own_device(lib, device):
    with tarn.Device.temporary({"contexts": [{"id": 9, "name": "blue"}]}):
        with pytest.raises(tarn.WrongDeviceError) as err:
            lib.context_id("red")
        assert device.root in str(err.value)
        # A second device's library cannot open while the first is open.
        with pytest.raises(tarn.WrongDeviceError):
            tarn.open()
    # Leaving the other device neither closed this library nor changed it.
    assert lib.is_open
    assert lib.context_id("red") == 3


def test_leaving_a_device_closes_only_its_own_libraries():
    with tarn.Device.temporary(DEVICE):
        lib = tarn.open()
        assert lib.is_open
    assert not lib.is_open
    with pytest.raises(tarn.NotInitialisedError):
        lib.context_id("red")
