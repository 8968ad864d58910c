"""python -m tarn, and the README's example against the example device."""

from __future__ import annotations

import re
import subprocess
import sys

import pytest

import tarn
from conftest import REPO, child_env


def run_module(*args: str) -> subprocess.CompletedProcess:
    return subprocess.run([sys.executable, "-m", "tarn", *args],
                          env=child_env(), capture_output=True, text=True,
                          timeout=60)


def test_module_reports_an_up_device(device):
    proc = run_module()
    assert proc.returncode == 0, proc.stderr
    out = proc.stdout
    assert f"device       {device.root}\n" in out
    assert "status       up\n" in out
    assert "contexts     default (1), management (2), red (3), lab (5)\n" in out
    assert "topologies   10, 20, 30\n" in out
    assert re.search(r"^libtarn +/.*libtarn\.so", out, re.M)
    assert re.search(r"^tarnctl +/.*tarnctl$", out, re.M)


def test_module_reports_a_device_that_is_not_up():
    with tarn.Device.temporary():
        proc = run_module()
    assert proc.returncode == 1
    assert "is not up" in proc.stdout


def test_module_help():
    proc = run_module("--help")
    assert proc.returncode == 0
    assert "tarnctl" in proc.stdout


def readme_example() -> str:
    text = (REPO / "README.md").read_text()
    section = text.split("## Python", 1)[1]
    return section.split("```python", 1)[1].split("```", 1)[0]


def test_readme_example_runs_against_the_example_device():
    code = readme_example()
    assert len(code.strip().splitlines()) == 5
    with tarn.Device.temporary(REPO / "examples" / "device.json"):
        proc = subprocess.run([sys.executable, "-c", code], env=child_env(),
                              capture_output=True, text=True, timeout=60,
                              cwd=REPO)
    assert proc.returncode == 0, proc.stderr
    assert "tenant-red" in proc.stdout


def test_tarnctl_is_found_beside_the_libraries(monkeypatch):
    from tarn import _native as N
    monkeypatch.delenv("TARNCTL", raising=False)
    libdir = N.library_path(N.host).parent
    found = N.tarnctl_path()
    assert found in (str(libdir / "tools" / "tarnctl"),
                     str(libdir.parent / "bin" / "tarnctl"))
    monkeypatch.setenv("TARNCTL", "/nonexistent/tarnctl")
    assert N.tarnctl_path() == "/nonexistent/tarnctl"


def test_missing_libraries_say_where_they_were_looked_for(tmp_path):
    env = child_env()
    env["TARN_LIBDIR"] = str(tmp_path)
    env.pop("LD_LIBRARY_PATH", None)
    proc = subprocess.run([sys.executable, "-c", "import tarn"], env=env,
                          capture_output=True, text=True, timeout=60,
                          cwd=tmp_path)
    if proc.returncode == 0:
        pytest.skip("an installed libtarn is on the dynamic loader's path")
    assert "ImportError" in proc.stderr
    assert "TARN_LIBDIR" in proc.stderr and str(tmp_path) in proc.stderr
