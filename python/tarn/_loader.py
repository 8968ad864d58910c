"""Finding libtarnhost and libtarn, and refusing a build this interpreter
cannot use before the dynamic loader sees it.

The libraries are looked for in this order:

1. the directory named by ``TARN_LIBDIR`` (a build tree such as
   ``build/x86_64`` or an installed ``PREFIX/lib``);
2. when the package is imported from the source tree (python/tarn), that
   tree's ``build/x86_64``;
3. the dynamic loader's own search (``ldconfig``, ``LD_LIBRARY_PATH``).

A file found by path is checked first: its ELF class and machine must be
this interpreter's (an i386 build cannot load into a 64-bit Python), it
must not need a sanitizer runtime that is not loaded already (loading an
ASan build into an ordinary interpreter ends the process), and its
version, read from the file name the build gives it
(``libtarn.so.MAJOR.MINOR.PATCH``), must be this package's major version
and no older than it.  libtarnhost is loaded first and globally, so that
libtarn's dependency on it is met by the very same copy.
"""

from __future__ import annotations

import ctypes
import os
import re
import struct
from pathlib import Path
from typing import Optional

LIBDIR_ENV = "TARN_LIBDIR"
HOST_SONAME = "libtarnhost.so.0"
TARN_SONAME = "libtarn.so.0"
# The libraries this package was written against: same major, this or later.
PACKAGE_VERSION = (0, 1, 0)

_MACHINES = {3: "i386", 62: "x86-64", 40: "ARM", 183: "AArch64",
             8: "MIPS", 20: "PowerPC", 21: "PowerPC64", 243: "RISC-V"}
_SANITIZERS = {b"libasan.so": "AddressSanitizer",
               b"libtsan.so": "ThreadSanitizer",
               b"libmsan.so": "MemorySanitizer"}
_VERSIONED = re.compile(r"\.so\.(\d+)\.(\d+)\.(\d+)$")


def _source_tree_build() -> Optional[Path]:
    """build/x86_64 of the source tree this package sits in, if any."""
    tree = Path(__file__).resolve().parent.parent.parent
    if (tree / "CMakeLists.txt").is_file() and (tree / "python" / "tarn").is_dir():
        return tree / "build" / "x86_64"
    return None


def candidates(soname: str) -> list[str]:
    out: list[str] = []
    libdir = os.environ.get(LIBDIR_ENV)
    if libdir:
        out.append(str(Path(libdir) / soname))
    else:
        build = _source_tree_build()
        if build is not None and (build / soname).exists():
            out.append(str(build / soname))
    out.append(soname)
    return out


def _wanted_elf() -> tuple[int, Optional[int]]:
    """(ELF class, machine) of this interpreter: the class from its pointer
    size, the machine from its own executable when it can be read."""
    elf_class = 2 if struct.calcsize("P") == 8 else 1
    try:
        with open("/proc/self/exe", "rb") as exe:
            head = exe.read(20)
        if head[:4] == b"\x7fELF":
            order = "<" if head[5] == 1 else ">"
            return elf_class, struct.unpack(order + "H", head[18:20])[0]
    except OSError:
        pass
    return elf_class, None


def _describe(elf_class: int, machine: Optional[int]) -> str:
    bits = {1: "32-bit", 2: "64-bit"}.get(elf_class, f"class {elf_class}")
    if machine is None:
        return bits
    return f"{bits} {_MACHINES.get(machine, f'machine {machine}')}"


def _runtime_loaded(name: bytes) -> bool:
    try:
        with open("/proc/self/maps", "rb") as maps:
            return name in maps.read()
    except OSError:
        return False


def check_file(path: str) -> None:
    """Raise ImportError when the library at ``path`` is not one this
    interpreter can load: another ELF class or machine, a sanitizer build
    without its runtime, or a version this package does not work with."""
    try:
        with open(path, "rb") as lib:
            data = lib.read()
    except OSError as exc:
        raise ImportError(f"tarn: cannot read {path}: {exc.strerror}") from None
    if data[:4] != b"\x7fELF" or len(data) < 20:
        raise ImportError(f"tarn: {path} is not an ELF shared library")
    order = "<" if data[5] == 1 else ">"
    found = (data[4], struct.unpack(order + "H", data[18:20])[0])
    wanted = _wanted_elf()
    if found[0] != wanted[0] or (wanted[1] is not None and found[1] != wanted[1]):
        raise ImportError(
            f"tarn: {path} is a {_describe(*found)} library; this interpreter "
            f"needs a {_describe(*wanted)} one (for example build/x86_64, "
            f"not build/i386); point {LIBDIR_ENV} at such a build")
    for needed, what in _SANITIZERS.items():
        if needed in data and not _runtime_loaded(needed):
            raise ImportError(
                f"tarn: {path} is a {what} build (it needs "
                f"{needed.decode()}), and this interpreter did not load that "
                f"runtime first; use a build without sanitizers (for example "
                f"build/x86_64), or start Python with the runtime preloaded "
                f"(LD_PRELOAD=$(gcc -print-file-name={needed.decode()}))")
    check_version(path)


def version_of(path: str) -> Optional[tuple[int, int, int]]:
    """The version in the name of the file ``path`` leads to, if any."""
    match = _VERSIONED.search(os.path.realpath(path))
    if match is None:
        return None
    major, minor, patch = (int(g) for g in match.groups())
    return major, minor, patch


def check_version(path: str) -> None:
    found = version_of(path)
    if found is None:
        return  # a copy without its version in the name: the symbols decide
    need = PACKAGE_VERSION
    if found[0] != need[0] or found < need:
        have = ".".join(map(str, found))
        want = ".".join(map(str, need))
        raise ImportError(
            f"tarn: {os.path.realpath(path)} is version {have}; this package "
            f"needs {need[0]}.x, {want} or later; use the libraries of the "
            f"same source tree or release")


def load(soname: str) -> ctypes.CDLL:
    errors: list[str] = []
    for name in candidates(soname):
        if os.sep in name:
            if not os.path.exists(name):
                errors.append(f"{name}: no such file")
                continue
            check_file(name)
        try:
            lib = ctypes.CDLL(name, mode=ctypes.RTLD_GLOBAL, use_errno=True)
        except OSError as exc:
            errors.append(str(exc))
            continue
        if os.sep not in name:
            # Found by the dynamic loader: its version is known only now.
            where = loaded_path(lib)
            if where is not None:
                check_version(str(where))
        return lib
    raise ImportError(
        f"tarn: cannot load {soname} ({'; '.join(errors)}); install libtarn "
        f"(cmake --install) or point {LIBDIR_ENV} at the directory that "
        f"holds it, for example build/x86_64")


def load_pair() -> tuple[ctypes.CDLL, ctypes.CDLL]:
    """libtarnhost, then libtarn."""
    return load(HOST_SONAME), load(TARN_SONAME)


def loaded_path(lib: ctypes.CDLL) -> Optional[Path]:
    """The file a loaded library came from: the path it was loaded by, or
    the one the dynamic loader chose (read from the process's maps)."""
    name: str = lib._name
    if os.sep in name:
        return Path(name)
    stem = name.split(".so")[0] + ".so"
    try:
        with open("/proc/self/maps", encoding="utf-8", errors="replace") as maps:
            for line in maps:
                path = line.rstrip("\n").split(None, 5)[-1]
                if path.startswith("/") and os.path.basename(path).startswith(stem):
                    return Path(path)
    except OSError:
        pass
    return None
