"""Loading: the package imports without the C libraries, refuses a build
this interpreter cannot load with an error naming what was found and what
is needed, and checks the libraries' version."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import PACKAGE_DIR, child_env

LIBDIR = Path(os.environ["TARN_LIBDIR"])


def _run(code: str, libdir: str) -> subprocess.CompletedProcess:
    env = child_env()
    env["TARN_LIBDIR"] = libdir
    env.pop("LD_LIBRARY_PATH", None)
    env.pop("LD_PRELOAD", None)
    return subprocess.run([sys.executable, "-c", code], env=env,
                          capture_output=True, text=True, check=False)


def test_import_and_pure_helpers_need_no_c_library(tmp_path):
    out = _run("import tarn, sys\n"
               "print(tarn.vlans.format_ranges(tarn.vlans.parse_ranges('1-3, 7')))\n"
               "print(tarn.vlans.set_from_bitmap(b'\\xe0'))\n"
               "print(sorted(m for m in sys.modules if m.startswith('tarn._n')))\n"
               "print('tarn' in vars(sys.modules['tarn._native']))\n"
               "try:\n"
               "    tarn.open()\n"
               "except ImportError as e:\n"
               "    print('ImportError', e)\n", str(tmp_path))
    assert out.returncode == 0, out.stderr
    lines = out.stdout.splitlines()
    assert lines[0] == "1-3,7"
    assert lines[1] == "frozenset({0, 1, 2})"
    assert lines[3] == "False"  # nothing loaded by the import or the helpers
    assert lines[4].startswith("ImportError tarn: cannot load libtarnhost.so.0")
    assert "TARN_LIBDIR" in lines[4]


def _copy_build(dest: Path) -> None:
    for name in ("libtarnhost.so.0.1.0", "libtarn.so.0.1.0"):
        shutil.copy(LIBDIR / name, dest / name)
        os.symlink(name, dest / name.replace(".1.0", ""))


def test_a_library_of_another_class_is_refused_before_loading(tmp_path):
    _copy_build(tmp_path)
    host = tmp_path / "libtarnhost.so.0.1.0"
    data = bytearray(host.read_bytes())
    data[4] = 1                        # ELFCLASS32
    data[18:20] = (3).to_bytes(2, "little")   # EM_386
    host.write_bytes(bytes(data))
    out = _run("import tarn\ntarn.open()", str(tmp_path))
    assert out.returncode != 0
    last = out.stderr.strip().splitlines()[-1]
    assert last.startswith("ImportError: tarn: ")
    assert "libtarnhost.so.0 is a 32-bit i386 library" in last
    assert "needs a 64-bit x86-64 one" in last


def test_a_sanitizer_build_is_refused_before_it_can_end_the_process(tmp_path):
    _copy_build(tmp_path)
    host = tmp_path / "libtarnhost.so.0.1.0"
    host.write_bytes(host.read_bytes() + b"\0libasan.so.8\0")
    out = _run("import tarn\ntarn.open()", str(tmp_path))
    last = out.stderr.strip().splitlines()[-1]
    assert "is a AddressSanitizer build (it needs libasan.so)" in last
    assert "LD_PRELOAD" in last


@pytest.mark.parametrize("build", ["i386", "asan"])
def test_the_projects_other_builds_are_refused(build):
    libdir = PACKAGE_DIR.parent / "build" / build
    if not (libdir / "libtarnhost.so.0").exists():
        pytest.skip(f"no {build} build")
    out = _run("import tarn\ntarn.open()", str(libdir))
    assert out.returncode != 0
    assert "ImportError: tarn: " in out.stderr
    assert ("32-bit i386" if build == "i386" else "AddressSanitizer") in out.stderr


def test_an_older_library_is_refused_by_its_version(tmp_path):
    for name, real in (("libtarnhost.so.0", "libtarnhost.so.0.0.9"),
                       ("libtarn.so.0", "libtarn.so.0.0.9")):
        shutil.copy(LIBDIR / (name + ".1.0"), tmp_path / real)
        os.symlink(real, tmp_path / name)
    out = _run("import tarn\ntarn.open()", str(tmp_path))
    last = out.stderr.strip().splitlines()[-1]
    assert "libtarnhost.so.0.0.9 is version 0.0.9" in last
    assert "needs 0.x, 0.1.0 or later" in last
