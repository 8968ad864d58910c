"""pytest fixtures for code that uses tarn: a private device, an open
library on it, and a registered client.

Installed with the package as the pytest plugin ``tarn`` (a ``pytest11``
entry point), so a test suite only names the fixtures:

- ``tarn_device_description``: the description the device is loaded with
  (a dict, or the path of a JSON file; docs/device-format.md).  The plugin's
  default is a small device; override the fixture to give your own.
- ``tarn_device``: a ``Device`` in a fresh private host root (mode 0700,
  under pytest's temporary directory), loaded with the description, made
  the root in force for the test and removed afterwards.
- ``tarn_library``: ``tarn.open()`` on that device, closed after the test.
- ``tarn_client``: a client of that library (bus handle bound, registered),
  closed after the test.
- ``tarn_fresh_reports``: forgets earlier reports and the rate limiter's
  history, so that the test sees the reports it provokes.

The fixtures load and change devices through ``Device`` only, whatever
device model does the work (tarn.device.DeviceModel): the fixtures stay as
they are when that model moves into a library.
"""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from . import _native as N
from .client import Client
from .device import Description, Device
from .errors import take_log_lines
from .library import Library
from .library import open as open_library

DEFAULT_DESCRIPTION = {
    "as_format": 2,
    "contexts": [
        {"id": 1, "name": "default",
         "tables": [{"id": 1, "af": 1, "name": "base"}]},
        {"id": 3, "name": "red",
         "tables": [{"id": 16, "af": 1, "name": "red-v4"}]},
    ],
    "interfaces": [
        {"ifindex": 200, "iod": 10, "name": "Ethernet1/1", "context": "red",
         "active_vlans": "100-199"},
    ],
    "topologies": [
        {"id": 10, "active_vlans": "100-199",
         "ftags": [{"ftag": 1, "graph": 1, "flags": 20}]},
    ],
}


@pytest.fixture
def tarn_device_description() -> Description:
    """The description ``tarn_device`` is loaded with; override it."""
    return DEFAULT_DESCRIPTION


@pytest.fixture
def tarn_fresh_reports() -> Iterator[None]:
    """No report pending and no rate-limit history at the test's start."""
    N.host.tarnhost_log_throttle_reset()
    take_log_lines()
    yield


@pytest.fixture
def tarn_device(tarn_device_description: Description,
                tmp_path_factory: pytest.TempPathFactory) -> Iterator[Device]:
    """A private device loaded with ``tarn_device_description``."""
    base: Path = tmp_path_factory.mktemp("tarn-device")
    with Device.temporary(tarn_device_description, directory=str(base)) as dev:
        yield dev


@pytest.fixture
def tarn_library(tarn_device: Device) -> Iterator[Library]:
    """The library, open on ``tarn_device``."""
    with open_library() as lib:
        yield lib


@pytest.fixture
def tarn_client(tarn_library: Library) -> Iterator[Client]:
    """A registered client of ``tarn_library``."""
    with tarn_library.client() as client:
        yield client
