"""The tarn.testing pytest plugin: declared as an entry point, and the test
of an imagined daemon that docs/python.md shows passes with it."""

from __future__ import annotations

import re
import subprocess
import sys
from pathlib import Path

from conftest import REPO, child_env


def test_the_plugin_is_a_pytest11_entry_point():
    text = (REPO / "python" / "pyproject.toml").read_text()
    assert re.search(r'\[project\.entry-points\.pytest11\]\ntarn = "tarn\.testing"', text)


def test_the_documented_daemon_test_passes(tmp_path: Path):
    doc = (REPO / "docs" / "python.md").read_text()
    blocks = [b for b in re.findall(r"```python\n(.*?)```", doc, re.S)
              if "tarn_device" in b]
    assert len(blocks) == 1
    (tmp_path / "test_daemon.py").write_text(blocks[0])
    out = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider",
         "-p", "tarn.testing", str(tmp_path / "test_daemon.py")],
        cwd=tmp_path, env=child_env(), capture_output=True, text=True,
        check=False)
    assert out.returncode == 0, out.stdout + out.stderr
    assert "1 passed" in out.stdout


def test_the_plugins_fixtures_serve_this_suite(tarn_device, tarn_library):
    assert tarn_library.context_id("red") == 3
    assert tarn_library.gyre.topology_vlans(10) == set(range(100, 200))
