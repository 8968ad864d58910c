"""mypy --strict accepts the package and every example of docs/python.md."""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
REPO = HERE.parent.parent


def _mypy(*args: str) -> subprocess.CompletedProcess:
    env = dict(os.environ, MYPYPATH=str(REPO / "python"))
    return subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--no-incremental",
         "--cache-dir", "/dev/null", "--python-version", "3.11", *args],
        capture_output=True, text=True, cwd=REPO / "python", env=env,
        check=False)


def _have_mypy() -> bool:
    return subprocess.run([sys.executable, "-m", "mypy", "--version"],
                          capture_output=True, check=False).returncode == 0


pytestmark = pytest.mark.skipif(not _have_mypy(), reason="mypy is not installed "
                                "(scripts/deps test installs Debian's mypy)")


def test_the_package_is_clean_under_mypy_strict():
    out = _mypy("-p", "tarn")
    assert out.returncode == 0, out.stdout + out.stderr


def examples() -> list[tuple[str, str]]:
    out = []
    for doc in ("docs/python.md", "README.md"):
        text = (REPO / doc).read_text()
        blocks = re.findall(r"```python\n(.*?)```", text, re.S)
        out += [(f"{doc} example {i + 1}", b) for i, b in enumerate(blocks)]
    return out


def test_the_documented_examples_are_clean_under_mypy_strict(tmp_path):
    found = examples()
    assert len(found) >= 3
    paths = []
    for number, (name, code) in enumerate(found):
        path = tmp_path / f"example_{number}.py"
        path.write_text(f"# {name}\n{code}")
        paths.append(str(path))
    out = _mypy(*paths)  # one run: mypy starts slowly
    assert out.returncode == 0, out.stdout + out.stderr


PYRIGHT = REPO / "python" / "typecheck" / "node_modules" / ".bin" / "pyright"
needs_pyright = pytest.mark.skipif(
    not PYRIGHT.exists(), reason="pyright is not installed (scripts/deps test "
    "installs it into python/typecheck with npm ci)")


def _pyright(config: Path) -> subprocess.CompletedProcess:
    return subprocess.run([str(PYRIGHT), "-p", str(config)],
                          capture_output=True, text=True, check=False)


@needs_pyright
def test_the_package_is_clean_under_pyright_strict():
    out = _pyright(REPO / "python" / "pyrightconfig.json")
    assert out.returncode == 0, out.stdout + out.stderr
    assert "0 errors" in out.stdout


@needs_pyright
def test_the_documented_examples_are_clean_under_pyright_strict(tmp_path):
    for number, (name, code) in enumerate(examples()):
        (tmp_path / f"example_{number}.py").write_text(f"# {name}\n{code}")
    config = tmp_path / "pyrightconfig.json"
    config.write_text(json.dumps({
        "include": [str(tmp_path)], "typeCheckingMode": "strict",
        "pythonVersion": "3.11",
        "extraPaths": [str(REPO / "python"), "/usr/lib/python3/dist-packages"]}))
    out = _pyright(config)
    assert out.returncode == 0, out.stdout + out.stderr
