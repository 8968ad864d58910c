"""VLAN and ftag sets: Python sets of ints, the library's bitmaps, range text.

Bitmaps are most significant bit first: element i is byte i // 8 under mask
0x80 >> (i % 8).  Range text is the device descriptions' notation,
``"10-20,30"`` (blanks allowed around numbers, commas and dashes; ``""`` is
the empty set).
"""

from __future__ import annotations

import ctypes
import re
from itertools import compress, repeat
from typing import AbstractSet, Iterable, Optional, Sequence, Union

from . import _core
from . import _native as N
from . import _structs as S

MAX_VLAN = 4095
MAX_FTAG = 1023

# Python ints 0..4095 made once: a set is built from slices of this tuple,
# not from ints made anew for every member.
_INTS = tuple(range(MAX_VLAN + 1))
# Byte i of a bitmap holds members 8i..8i+7 most significant bit first;
# reversing the bits of every byte puts member v at bit v of the
# little-endian integer of the bitmap.
_REVERSE_BITS = bytes(int(f"{b:08b}"[::-1], 2) for b in range(256))
_ZERO_ONE = bytes.maketrans(b"01", b"\x00\x01")
_EMPTY: frozenset[int] = frozenset()
# Above this many runs of consecutive members, one pass over every bit is
# cheaper than one step per run.
_RUNS_BY_STEP = 48
# The sets of the bitmaps seen last: VLAN sets change rarely, and a
# frozenset can be handed out again as it is.
_MEMO: dict[bytes, frozenset[int]] = {}
_MEMO_SIZE = 256

Bits = Union[bytes, bytearray, memoryview, Sequence[int]]


def set_from_bitmap(raw: bytes, memo: bool = True) -> frozenset[int]:
    """The members of a bitmap (``bytes`` of at most 512 bytes).

    Runs of members are found with integer bit operations and each run is
    taken from a prebuilt tuple in one slice, so a set of a few ranges
    costs a few big-integer operations, not one step per member; sets made
    of many short runs are taken in one pass with itertools.compress.
    ``memo`` hands out the same frozenset again for a bitmap seen lately."""
    if memo:
        found = _MEMO.get(raw)
        if found is not None:
            return found
    # Only the bytes between the first and the last non-zero one: the
    # integers stay as small as the set's span.
    body = raw.lstrip(b"\0")
    base = (len(raw) - len(body)) * 8
    body = body.rstrip(b"\0")
    if not body:
        return _EMPTY
    n = int.from_bytes(body.translate(_REVERSE_BITS), "little")
    if bin(n ^ (n >> 1)).count("1") > 2 * _RUNS_BY_STEP:
        width = len(body) * 8
        selectors = format(int.from_bytes(body, "big"), f"0{width}b")
        out = frozenset(compress(_INTS[base:base + width],
                                 selectors.encode().translate(_ZERO_ONE)))
    else:
        runs: list[tuple[int, ...]] = []
        while n:
            low = n & -n
            moved = n + low      # the run starting at low becomes one bit above it
            high = moved & -moved
            runs.append(_INTS[base + low.bit_length() - 1:
                              base + high.bit_length() - 1])
            n = moved - high
        if len(runs) == 1:
            out = frozenset(runs[0])
        else:
            out = _EMPTY.union(*runs)
    if memo:
        if len(_MEMO) >= _MEMO_SIZE:
            del _MEMO[next(iter(_MEMO))]
        _MEMO[bytes(raw)] = out
    return out


def from_bits(bits: Bits, nbytes: int) -> frozenset[int]:
    """The set held by the first ``nbytes`` bytes of a bitmap."""
    return set_from_bitmap(bytes(bits[:nbytes]))


def bitmap_bytes(members: Iterable[int], nbytes: int, what: str = "member"
                 ) -> bytes:
    """The ``nbytes``-byte bitmap of ``members`` (ValueError names a member
    that is not an int in range)."""
    limit = nbytes * 8 - 1
    values = members if isinstance(members, (set, frozenset)) else set(members)
    if not values:
        return bytes(nbytes)
    if not set(map(type, values)) <= {int} or min(values) < 0 or \
            max(values) > limit:
        for v in values:
            if type(v) is not int or not 0 <= v <= limit:
                raise ValueError(f"{what} {v!r} is not an int in range 0..{limit}")
    flags = bytearray(nbytes * 8)
    # One C-level loop: flags[v] = 1 for every member.
    any(map(flags.__setitem__, values, repeat(1)))
    return int(flags.translate(_ONE_ZERO_TEXT), 2).to_bytes(nbytes, "big")


_ONE_ZERO_TEXT = bytes.maketrans(b"\x00\x01", b"01")


def vlan_bitmap(vlans: Iterable[int]) -> S.VlanBitmap:
    """A length-prefixed VLAN bitmap (512 bytes) holding ``vlans``."""
    bmp = S.VlanBitmap()
    bmp.len = S.VLAN_BMP_BYTES
    bmp.bits[:] = bitmap_bytes(vlans, S.VLAN_BMP_BYTES, "VLAN")
    return bmp


def ftag_bitmap(ftags: Iterable[int]) -> S.FtagBitmap:
    """A length-prefixed ftag bitmap (128 bytes) holding ``ftags``."""
    bmp = S.FtagBitmap()
    bmp.len = S.FTAG_BMP_BYTES
    bmp.bits[:] = bitmap_bytes(ftags, S.FTAG_BMP_BYTES, "ftag")
    return bmp


def format_ranges(members: Union[AbstractSet[int], Iterable[int]]) -> str:
    """``{1, 2, 3, 5}`` as ``"1-3,5"``; the empty set as ``""``."""
    parts: list[str] = []
    run_start: Optional[int] = None
    prev: Optional[int] = None
    for v in sorted(set(members)):
        if prev is not None and v == prev + 1:
            prev = v
            continue
        if run_start is not None and prev is not None:
            parts.append(_run(run_start, prev))
        run_start = prev = v
    if run_start is not None and prev is not None:
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
    with _core.LOCK:  # the library writes into a static buffer
        return N.text(N.tarn.gyre_vlans2str(ctypes.byref(bmp)))


def library_ftag_text(ftags: Iterable[int]) -> str:
    """The library's rendering of an ftag set (``gyre_ftag2str``)."""
    bmp = ftag_bitmap(ftags)
    with _core.LOCK:
        return N.text(N.tarn.gyre_ftag2str(ctypes.byref(bmp)))
