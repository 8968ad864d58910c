"""VLAN and ftag sets: Python sets of ints, the library's bitmaps, range text.

Bitmaps are most significant bit first: element i is byte i // 8 under mask
0x80 >> (i % 8).  Range text is the device descriptions' notation,
``"10-20,30"`` (blanks allowed around numbers, commas and dashes; ``""`` is
the empty set).
"""

from __future__ import annotations

import ctypes
import re
from typing import AbstractSet, Iterable

from . import _native as N
from . import _structs as S

MAX_VLAN = 4095
MAX_FTAG = 1023


def from_bits(bits, nbytes: int) -> set[int]:
    """The set held by the first ``nbytes`` bytes of a bitmap."""
    raw = bytes(bits[:nbytes])
    out = set()
    for i, byte in enumerate(raw):
        if byte:
            base = i * 8
            for j in range(8):
                if byte & (0x80 >> j):
                    out.add(base + j)
    return out


def _fill(bmp, members: Iterable[int], limit: int) -> None:
    for v in members:
        if not isinstance(v, int) or isinstance(v, bool) or not 0 <= v <= limit:
            raise ValueError(f"{v!r} is out of range 0..{limit}")
        bmp.bits[v // 8] |= 0x80 >> (v % 8)


def vlan_bitmap(vlans: Iterable[int]) -> S.VlanBitmap:
    """A length-prefixed VLAN bitmap (512 bytes) holding ``vlans``."""
    bmp = S.VlanBitmap()
    bmp.len = S.VLAN_BMP_BYTES
    _fill(bmp, vlans, MAX_VLAN)
    return bmp


def ftag_bitmap(ftags: Iterable[int]) -> S.FtagBitmap:
    """A length-prefixed ftag bitmap (128 bytes) holding ``ftags``."""
    bmp = S.FtagBitmap()
    bmp.len = S.FTAG_BMP_BYTES
    _fill(bmp, ftags, MAX_FTAG)
    return bmp


def format_ranges(members: AbstractSet[int] | Iterable[int]) -> str:
    """``{1, 2, 3, 5}`` as ``"1-3,5"``; the empty set as ``""``."""
    parts = []
    run_start = prev = None
    for v in sorted(set(members)):
        if prev is not None and v == prev + 1:
            prev = v
            continue
        if run_start is not None:
            parts.append(_run(run_start, prev))
        run_start = prev = v
    if run_start is not None:
        parts.append(_run(run_start, prev))
    return ",".join(parts)


def _run(a: int, b: int) -> str:
    return str(a) if a == b else f"{a}-{b}"


_PART = re.compile(r"^\s*(\d+)\s*(?:-\s*(\d+)\s*)?$")


def parse_ranges(text: str, limit: int = MAX_VLAN) -> set[int]:
    """``"10-12, 30"`` as ``{10, 11, 12, 30}``; raises ValueError naming the
    fault for a malformed text, a number above ``limit`` or a backward range.
    """
    if text.strip() == "":
        return set()
    out: set[int] = set()
    for part in text.split(","):
        m = _PART.match(part)
        if m is None:
            raise ValueError(f"bad range list {text!r}: {part.strip()!r} is "
                             f"not a number or a range")
        lo = int(m.group(1))
        hi = int(m.group(2)) if m.group(2) is not None else lo
        for v in (lo, hi):
            if v > limit:
                raise ValueError(f"bad range list {text!r}: {v} is out of "
                                 f"range 0..{limit}")
        if hi < lo:
            raise ValueError(f"bad range list {text!r}: range {lo}-{hi} runs "
                             f"backwards")
        out.update(range(lo, hi + 1))
    return out


def library_text(vlans: Iterable[int]) -> str:
    """The library's own rendering of a VLAN set (``gyre_vlans2str``):
    ``"1-3,5"``, or ``"--"`` for the empty set."""
    bmp = vlan_bitmap(vlans)
    return N.text(N.tarn.gyre_vlans2str(ctypes.byref(bmp)))


def library_ftag_text(ftags: Iterable[int]) -> str:
    """The library's rendering of an ftag set (``gyre_ftag2str``)."""
    bmp = ftag_bitmap(ftags)
    return N.text(N.tarn.gyre_ftag2str(ctypes.byref(bmp)))
