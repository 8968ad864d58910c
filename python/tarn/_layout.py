"""Where the notification payloads' fields are: the one place in the package
that reads payload bytes.

``fields(opcode, payload)`` answers ``(kind, {field: value})``, plain data
that tarn.events turns into its classes.  Nothing here raises on a short or
odd payload: what cannot be read is answered as kind ``"malformed"`` with a
``reason``.  Offsets are the bus payloads' (numbers in host byte order).
"""

from __future__ import annotations

import struct
from typing import Any

from .vlans import set_from_bitmap

Fields = dict[str, Any]

TOPOLOGY_VLAN_RECORD = 556
FTAG_ENTRY = 1048
NAME_BYTES = 33


def _u32(p: bytes, at: int) -> int:
    value: int = struct.unpack_from("=I", p, at)[0]
    return value


def _u16(p: bytes, at: int) -> int:
    value: int = struct.unpack_from("=H", p, at)[0]
    return value


def _text(p: bytes, at: int, size: int) -> str:
    return p[at:at + size].split(b"\0", 1)[0].decode("utf-8", "replace")


def _short(need: int, have: int) -> tuple[str, Fields]:
    return "malformed", {"reason": f"a payload of {have} bytes; {need} needed"}


def _topology(p: bytes) -> tuple[str, Fields]:
    if len(p) < 24:
        return _short(24, len(p))
    return "topology", {"topology": _u32(p, 20)}


def _topology_vlans(p: bytes) -> tuple[str, Fields]:
    if len(p) < 24:
        return _short(24, len(p))
    count = _u32(p, 20)
    room = (len(p) - 24) // TOPOLOGY_VLAN_RECORD
    records: list[Fields] = []
    for i in range(min(count, room)):
        at = 24 + i * TOPOLOGY_VLAN_RECORD
        size = min(_u32(p, at + 40), 512)
        records.append({"topology": _u32(p, at),
                        "name": _text(p, at + 4, NAME_BYTES),
                        "vlans": set_from_bitmap(p[at + 44:at + 44 + size])})
    if count > room:
        return "malformed", {"reason": f"{count} records announced, room "
                                       f"for {room}", "records": records}
    return "topology_vlans", {"records": records}


def _ftag_update(p: bytes) -> tuple[str, Fields]:
    if len(p) < 4:
        return _short(4, len(p))
    count = _u32(p, 0)
    # The last entry needs only its first 16 bytes.
    room = (len(p) - 4 + FTAG_ENTRY - 16) // FTAG_ENTRY if len(p) >= 20 else 0
    entries: list[Fields] = []
    for i in range(min(count, room)):
        at = 4 + i * FTAG_ENTRY
        entries.append({"reason": _u32(p, at), "topology": _u32(p, at + 4),
                        "graph": _u16(p, at + 8), "ftag": _u16(p, at + 10),
                        "flags": _u32(p, at + 12)})
    if count > room:
        return "malformed", {"reason": f"{count} entries announced, room "
                                       f"for {room}", "entries": entries}
    return "ftag_update", {"entries": entries}


def _attr_change(p: bytes) -> tuple[str, Fields]:
    if len(p) < 4:
        return _short(4, len(p))
    kind = _u16(p, 2)
    if kind == 1:
        if len(p) < 28:
            return _short(28, len(p))
        return "as_format", {"format": _u32(p, 24)}
    if kind == 2:
        if len(p) < 164:
            return _short(164, len(p))
        return "topology_ftags_deleted", {
            "topology": _u32(p, 28), "ftags": set_from_bitmap(p[36:164])}
    if kind == 3:
        return "caches_deleted", {}
    if kind == 4:
        if len(p) < 28:
            return _short(28, len(p))
        return "cache_dump_request", {"pid": _u32(p, 4), "page": _u32(p, 24)}
    return "attribute_change", {"kind": kind}


def _config_change(p: bytes) -> tuple[str, Fields]:
    if len(p) < 76:
        return _short(76, len(p))
    kind, param = struct.unpack_from("=II", p, 0)
    count = _u16(p, 74)
    need = 76 + 4 * count
    if len(p) < need:
        return _short(need, len(p))
    return "config_change", {
        "type": kind, "param": param, "name": _text(p, 8, NAME_BYTES),
        "context": _text(p, 41, NAME_BYTES),
        "entries": list(struct.unpack_from(f"={count}I", p, 76))}


def _ftag_notice(p: bytes) -> tuple[str, Fields]:
    if len(p) < 12:
        return _short(12, len(p))
    return "ftag_notice", {"converged": _u32(p, 4) == 1,
                           "topology": _u32(p, 8)}


_DECODERS = {51208: _topology, 51210: _topology, 51214: _topology_vlans,
             51215: _ftag_update, 51226: _attr_change,
             51222: _config_change, 51223: _ftag_notice}
GYRE_UNUSED = frozenset((51205, 51209, 51211, 51212, 51213))


def fields(opcode: int, payload: bytes) -> tuple[str, Fields]:
    """The kind of a notification and its fields."""
    decoder = _DECODERS.get(opcode)
    if decoder is not None:
        return decoder(payload)
    if opcode in GYRE_UNUSED:
        return "gyre_notification", {}
    if opcode == 51201:
        return "registration", {}
    return "other", {}
