"""The simulated device from Python: temporary roots, loading, changing,
bringing up and down."""

from __future__ import annotations

import json
import os
import stat

import pytest

import tarn
from conftest import DEVICE, REPO


def test_temporary_device_has_a_private_root_that_goes_away():
    before = os.environ.get("TARNHOST_ROOT")
    with tarn.Device.temporary() as dev:
        assert os.environ["TARNHOST_ROOT"] == dev.root
        assert tarn.current_root() == dev.root
        mode = os.stat(dev.root).st_mode
        assert stat.S_IMODE(mode) == 0o700
        for sub in ("kvs", "log", "bus", "supervisor"):
            assert os.path.isdir(os.path.join(dev.root, sub))
        root = dev.root
    assert not os.path.exists(root)
    assert os.environ.get("TARNHOST_ROOT") == before


def test_empty_temporary_device_is_not_up():
    with tarn.Device.temporary():
        with pytest.raises(tarn.DeviceNotUpError) as err:
            tarn.open()
        assert "is not up" in str(err.value)


def test_load_from_a_dict_and_from_a_file(tmp_path):
    with tarn.Device.temporary() as dev:
        summary = dev.load(DEVICE)
        assert summary.startswith("loaded ") and f" into {dev.root}: " in summary
        assert "4 contexts, 3 tables, 5 interfaces, 3 topologies" in summary
        with tarn.open() as lib:
            assert lib.context_id("red") == 3
        path = tmp_path / "other.json"
        path.write_text(json.dumps({"contexts": [{"id": 9, "name": "solo"}]}))
        assert "1 context, " in dev.load(path)
        with tarn.open() as lib:
            # Loading replaces: what the new description leaves out is gone.
            assert lib.context_id("red") is None
            assert [c.name for c in lib.contexts()] == ["solo"]


def test_refused_description_raises_and_writes_nothing(device):
    bad = {"contexts": [{"id": 1, "name": "x" * 33}]}
    with pytest.raises(tarn.DeviceError) as err:
        device.load(bad)
    assert err.value.status == 1
    assert "contexts[0].name: text longer than 32 bytes" in err.value.message
    assert "nothing was written" in err.value.message
    with tarn.open() as lib:
        assert lib.context_id("red") == 3


def test_unreadable_file_is_a_device_error(device, tmp_path):
    with pytest.raises(tarn.DeviceError) as err:
        device.load(tmp_path / "missing.json")
    assert "cannot read" in err.value.message


def test_apply_plays_changes_and_reports_each(device):
    lines = device.apply({"changes": [
        {"change": "create_topology", "topology": 40},
        {"change": "as_format", "format": 3}]})
    assert lines[0].startswith("changes[0]: ")
    assert lines[1].startswith("changes[1]: AS format 3")
    with tarn.open() as lib:
        assert 40 in [t.id for t in lib.gyre.topologies()]
        assert lib.refresh_as_format() == 3


def test_refused_change_file_raises(device):
    with pytest.raises(tarn.DeviceError) as err:
        device.apply({"changes": [{"change": "delete_topology", "topology": 77}]})
    assert "topology 77 does not exist" in err.value.message


def test_apply_the_example_changes_to_the_example_device():
    with tarn.Device.temporary(REPO / "examples" / "device.json") as dev:
        lines = dev.apply(REPO / "examples" / "changes.json")
        assert any("topology 30 deleted" in line for line in lines)


def test_down_and_up(device):
    device.down()
    with pytest.raises(tarn.DeviceNotUpError):
        tarn.open()
    device.up()
    with tarn.open() as lib:
        assert lib.context_id("default") == 1


def test_device_of_another_root_is_driven_there(tmp_path):
    with tarn.Device.temporary(DEVICE) as outer:
        other_root = tmp_path / "other"
        other_root.mkdir(mode=0o700)
        other = tarn.Device(other_root)
        other.load({"contexts": [{"id": 1, "name": "default"}]})
        # This process's root stays the temporary one.
        assert tarn.current_root() == outer.root
        with tarn.open() as lib:
            assert lib.context_id("red") == 3
        assert (other_root / "kvs").is_dir()


def test_closing_a_temporary_device_closes_the_library():
    with tarn.Device.temporary(DEVICE):
        lib = tarn.open()
        assert lib.is_open
    assert not lib.is_open


def test_device_log_holds_reports_of_every_process(device):
    from tarn import _native as N
    with tarn.open() as lib:
        N.host.tarnhost_fault_set(b"kvs_read", 5, 1)
        try:
            with pytest.raises(tarn.TarnError) as err:
                lib.context_id("red")
        finally:
            N.host.tarnhost_fault_clear_all()
    assert err.value.log_line in device.log_lines()


def test_refused_temporary_device_cleans_up():
    before = os.environ.get("TARNHOST_ROOT")
    made = []

    class Watch(tarn.TemporaryDevice):
        def load(self, description):
            made.append(self.root)
            return super().load(description)

    with pytest.raises(tarn.DeviceError):
        with Watch({"contexts": "not a list"}):
            pass  # pragma: no cover - never entered
    assert made and not os.path.exists(made[0])
    assert os.environ.get("TARNHOST_ROOT") == before
