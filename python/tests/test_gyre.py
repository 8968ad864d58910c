"""Gyre from Python: every query on the database path and on the cache path
(same answers), the walks as iterators, flags as an IntFlag, VLAN sets as
Python sets."""

from __future__ import annotations

import pytest

import tarn
from tarn import FtagFlags
from tarn.vlans import format_ranges


@pytest.fixture(params=["database", "cache"])
def gyre(request, lib):
    """The Gyre client, answering from the database or from its cache."""
    if request.param == "cache":
        with lib.client() as c:
            c.enable_cache(as_format=False)
            assert lib.gyre.cache_enabled
            yield lib.gyre
        assert not lib.gyre.cache_enabled
    else:
        assert not lib.gyre.cache_enabled
        yield lib.gyre


def test_owners(gyre):
    assert gyre.ftag_topology(1) == 10
    assert gyre.ftag_topology(5) == 20
    assert gyre.ftag_topology(9) is None
    assert gyre.vlan_topology(150) == 10
    assert gyre.vlan_topology(249) == 20
    assert gyre.vlan_topology(250) is None
    assert tarn.take_log_lines() == []


def test_ftags_of_topologies_and_vlans(gyre):
    assert gyre.topology_ftag(10, 2) == 2
    assert gyre.unicast_ftag(20) == 5
    assert gyre.unicast_ftag(20) == 5
    assert gyre.unicast_ftag(30) is None
    assert gyre.vlan_ftag(150, 2) == 2
    assert gyre.vlan_unicast_ftag(220) == 5
    assert gyre.vlan_unicast_ftag(3000) is None
    assert gyre.vlan_ftag(3000, 2) is None


def test_ftags_stored_with_other_flags_than_their_graphs(gyre):
    # The database key of a graph-2 lookup carries the flag byte 0x02 and a
    # unicast lookup 0x10: ftag 6 (graph 2, flags 0x06) and ftag 1 (graph 1,
    # flags 0x14) are found on the cache path only, by design.
    assert gyre.topology_ftag(20, 2) == (6 if gyre.cache_enabled else None)
    assert gyre.unicast_ftag(10) == (1 if gyre.cache_enabled else None)
    assert gyre.vlan_unicast_ftag(150) == (1 if gyre.cache_enabled else None)


def test_vlan_sets(gyre):
    assert gyre.ftag_vlans(1) == set(range(100, 200))
    assert format_ranges(gyre.ftag_vlans(5)) == "200-249"
    assert gyre.ftag_vlans(9) is None
    assert gyre.topology_vlans(10) == set(range(100, 200))
    assert gyre.topology_vlans("20") == set(range(200, 250))
    assert gyre.topology_vlans(99) is None
    # The cache holds one set per topology: the active one.
    configured = gyre.topology_vlans(10, configured=True)
    if gyre.cache_enabled:
        assert configured == set(range(100, 200))
    else:
        assert configured == set(range(100, 300))


def test_interface_vlans(gyre):
    assert gyre.interface_vlans(200) == set(range(100, 200))
    assert gyre.interface_vlans(200, configured=True) == set(range(100, 300))
    # A port-channel member answers its port-channel's, by ifindex or IOD.
    assert gyre.interface_vlans(201) == set(range(100, 200))
    assert gyre.interface_vlans(iod=11, configured=True) == set(range(100, 300))
    assert gyre.interface_vlans(400) == set()
    assert gyre.interface_vlans(12345) is None
    with pytest.raises(TypeError):
        gyre.interface_vlans(200, iod=10)


def test_topologies(gyre):
    assert list(gyre.topologies()) == [tarn.Topology(10, "10"),
                                       tarn.Topology(20, "20"),
                                       tarn.Topology(30, "30")]
    assert sorted(gyre.interface_topologies(300), key=lambda t: t.id) == [
        tarn.Topology(10, "fabric"), tarn.Topology(20, "backup")]
    assert list(gyre.interface_topologies(200)) == []
    assert gyre.interface_topology(300, "fabric") == tarn.Topology(10, "fabric")
    assert gyre.interface_topology(300, "other") is None
    assert gyre.topology_id("20") == 20
    assert gyre.topology_id("x") is None


def test_ftag_walks(gyre):
    assert list(gyre.ftags()) == [1, 2, 3, 5, 6]
    assert list(gyre.active_ftags()) == [1, 3, 6]
    assert list(gyre.multicast_ftags()) == [2, 3, 6]
    assert list(gyre.multicast_ftags(10)) == [2, 3]
    assert list(gyre.multicast_ftags(20, active=True)) == [6]
    assert list(gyre.unicast_ftags()) == [1, 5]
    assert list(gyre.ftags(FtagFlags.UNICAST | FtagFlags.ACTIVE)) == [1]
    assert list(gyre.ftags(topology=30)) == []
    assert list(gyre.topology_ftags(10)) == [
        tarn.Ftag(1, 1, FtagFlags.UNICAST | FtagFlags.ACTIVE, 10),
        tarn.Ftag(2, 2, FtagFlags.MULTICAST, 10),
        tarn.Ftag(3, 3, FtagFlags.MULTICAST | FtagFlags.ACTIVE, 10)]


def test_ftag_walks_may_be_interleaved(gyre):
    walk = gyre.ftags()
    assert next(walk) == 1
    assert list(gyre.unicast_ftags()) == [1, 5]
    assert list(walk) == [2, 3, 5, 6]
    # The Tarn database's walks are separate from the Gyre database's.
    ftags = gyre.ftags()
    assert next(ftags) == 1
    assert len(list(gyre.topologies())) == 3
    assert list(ftags) == [2, 3, 5, 6]


def test_out_of_range_arguments_are_value_errors(gyre):
    with pytest.raises(ValueError):
        gyre.ftag_topology(1024)
    with pytest.raises(ValueError):
        gyre.vlan_topology(4096)
    with pytest.raises(ValueError):
        gyre.vlan_ftag(-1, 1)


def test_flags_are_an_intflag():
    flags = FtagFlags(0x16)
    assert FtagFlags.ACTIVE in flags and FtagFlags.MULTICAST in flags
    assert int(flags) == 0x16
    assert FtagFlags.UNICAST == 0x10


def test_answers_follow_applied_changes_on_both_paths(device, lib):
    with lib.client() as c:
        c.enable_cache(as_format=False)
        device.apply({"changes": [{"change": "topology_vlans", "topologies": [
            {"topology": 30, "active_vlans": "300-310"}]}]})
        msgs = list(c.messages(timeout=2, count=1))
        assert msgs and msgs[0].opcode == 51214 and msgs[0].handled
        cached = lib.gyre.topology_vlans(30)
        c.disable_cache()
        assert lib.gyre.topology_vlans(30) == cached == set(range(300, 311))
