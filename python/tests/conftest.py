"""Shared fixtures: a simulated device per test, the open library, a client.

The bindings under test are the ones in this source tree (python/tarn) unless
TARN_TEST_INSTALLED is set, and the libraries those of build/x86_64 unless
TARN_LIBDIR names others.
"""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
PACKAGE_DIR = HERE.parent
REPO = PACKAGE_DIR.parent

os.environ.setdefault("TARN_LIBDIR", str(REPO / "build" / "x86_64"))
if not os.environ.get("TARN_TEST_INSTALLED"):
    sys.path.insert(0, str(PACKAGE_DIR))

import tarn  # noqa: E402

# A small device whose every fact the tests check.  The cell manager
# designates cell 2, so that cell 1's interfaces are looked up one by one
# instead of all being in "default".
DEVICE = {
    "cell": 2,
    "cells": [1, 2],
    "as_format": 2,
    "contexts": [
        {"id": 1, "name": "default",
         "tables": [{"id": 1, "af": 1, "name": "base"}]},
        {"id": 2, "name": "management"},
        {"id": 3, "name": "red", "vpn_id": [65001, 1, 100],
         "tables": [{"id": 16, "af": 1, "name": "red-v4",
                     "route_limits": [100000, 7, 80000, 80, 1]},
                    {"id": 17, "af": 2, "name": "red-v6"}]},
        {"id": 5, "name": "lab", "state": 1, "reason": 3},
    ],
    "interfaces": [
        {"ifindex": 100, "iod": 1, "name": "mgmt0", "mgmt": True,
         "context": "management"},
        {"ifindex": 200, "iod": 10, "name": "port-channel1", "context": "red",
         "active_vlans": "100-199", "configured_vlans": "100-299"},
        {"ifindex": 201, "iod": 11, "name": "Ethernet1/1",
         "port_channel": 200},
        {"ifindex": 300, "iod": 20, "name": "Ethernet1/2", "context": "lab",
         "soo": {"word": 1, "value": "0x0002FDE800000009"},
         "topologies": [{"name": "fabric", "topology": 10},
                        {"name": "backup", "topology": 20}]},
        {"ifindex": 400, "iod": 30, "name": "Ethernet1/3"},
    ],
    "topologies": [
        {"id": 10, "active_vlans": "100-199", "configured_vlans": "100-299",
         "ftags": [{"ftag": 1, "graph": 1, "flags": 20},
                   {"ftag": 2, "graph": 2},
                   {"ftag": 3, "graph": 3, "flags": 6}]},
        {"id": 20, "active_vlans": "200-249",
         "ftags": [{"ftag": 5, "graph": 1}, {"ftag": 6, "graph": 2, "flags": 6}]},
        {"id": 30},
    ],
}


# The package's own pytest plugin (tarn.testing) provides the fixtures;
# importing them here serves the source tree, where the plugin's entry point
# is not installed.
from tarn.testing import (tarn_client, tarn_device, tarn_fresh_reports,  # noqa: E402,F401
                          tarn_library)


@pytest.fixture
def tarn_device_description():
    return DEVICE


@pytest.fixture(autouse=True)
def fresh_reports(tarn_fresh_reports):
    """Each test starts with no report pending and no rate-limit history, so
    that the reports it provokes are rendered whatever ran before."""
    yield


@pytest.fixture
def device(tarn_device):
    """A temporary device loaded with DEVICE."""
    return tarn_device


@pytest.fixture
def lib(tarn_library):
    """The library, open on the test device."""
    return tarn_library


@pytest.fixture
def client(tarn_client):
    """A registered client of the open library."""
    return tarn_client


def child_env() -> dict:
    """The environment of a Python child process of the tests: the same
    bindings, libraries and device root."""
    env = dict(os.environ)
    if not os.environ.get("TARN_TEST_INSTALLED"):
        env["PYTHONPATH"] = os.pathsep.join(
            p for p in (str(PACKAGE_DIR), env.get("PYTHONPATH")) if p)
    return env


def start_child(script: str, *args: str) -> subprocess.Popen:
    """Start tests/procs/<script> with the test's interpreter."""
    return subprocess.Popen([sys.executable, str(HERE / "procs" / script),
                             *args], env=child_env(), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True)
