"""Arguments are checked before the library sees them: integers outside
0..2**32-1, floats, bools and texts holding NUL are refused with an error
that names the parameter."""

from __future__ import annotations

import pytest

import tarn


@pytest.mark.parametrize("call, param, error", [
    (lambda lib: lib.context(2**32 + 3), "id", ValueError),
    (lambda lib: lib.context(-1), "id", ValueError),
    (lambda lib: lib.context(3.7), "id", TypeError),
    (lambda lib: lib.context(True), "id", TypeError),
    (lambda lib: lib.context("red\0junk"), "name", ValueError),
    (lambda lib: lib.context_id(b"red"), "name", TypeError),
    (lambda lib: lib.table(2**32), "table_id", ValueError),
    (lambda lib: lib.table_id("red", 1.0, "red-v4"), "af", TypeError),
    (lambda lib: lib.table_id("red", 1, "red-v4\0"), "name", ValueError),
    (lambda lib: lib.interface_context(False), "ifindex", TypeError),
    (lambda lib: lib.route_limits(16.0), "table_id", TypeError),
    (lambda lib: lib.vpn_id("red\0"), "context_name", ValueError),
    (lambda lib: list(lib.interfaces("red\0")), "context", ValueError),
    (lambda lib: lib.gyre.vlan_topology(4096), "vlan", ValueError),
    (lambda lib: lib.gyre.vlan_topology(150.0), "vlan", TypeError),
    (lambda lib: lib.gyre.ftag_topology(True), "ftag", TypeError),
    (lambda lib: lib.gyre.topology_vlans(2**32 + 10), "topology", ValueError),
    (lambda lib: lib.gyre.topology_vlans(10.0), "topology", TypeError),
    (lambda lib: lib.gyre.interface_vlans(iod=-5), "iod", ValueError),
    (lambda lib: lib.gyre.topology_ftag(10, 2**16), "graph", ValueError),
    (lambda lib: lib.gyre.stale(2**32), "topology", ValueError),
    (lambda lib: lib.send_config_change(1, "red", param=-1), "param", ValueError),
])
def test_bad_arguments_are_refused_naming_the_parameter(lib, call, param, error):
    with pytest.raises(error) as err:
        call(lib)
    assert str(err.value).startswith(param), str(err.value)
    assert tarn.take_log_lines() == []


def test_limits_are_accepted_on_both_sides(lib):
    assert lib.context(0) is None
    assert lib.context(2**32 - 1) is None
    assert lib.gyre.vlan_topology(0) is None
    assert lib.gyre.vlan_topology(4095) is None
    assert lib.context(tarn.AddressFamily.IPV4) is not None  # an int enum is an int
    assert lib.context("red") == lib.context(3)


def test_open_is_not_exported_by_star_import():
    names: dict[str, object] = {}
    exec("from tarn import *", names)
    assert "open" not in names
    assert "Library" in names
    assert tarn.open is not open
