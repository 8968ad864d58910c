"""The services' notifications as Python values.

``Opcode`` names every opcode a client of the device meets; ``decode()``
turns a payload into one frozen, hashable event class per notification,
each keeping the bytes it came from (``raw``).  A payload too short for what
it announces decodes as ``Malformed`` with the reason, never an exception.
``Message.event`` (tarn.Client) is ``decode(message.opcode,
message.payload)``.

    for msg in client.messages(timeout=1):
        ev = msg.event
        if isinstance(ev, tarn.events.TopologyVlans):
            for rec in ev.records:
                print(rec.topology, tarn.vlans.format_ranges(rec.vlans))
"""

from __future__ import annotations

import enum
from dataclasses import dataclass, field
from typing import Any, Callable

from . import _layout


class Opcode(enum.IntEnum):
    """Bus opcodes, by the names the host and tarnctl give them."""
    TARN_REGISTER = 51201
    GYRE_NOTIFY_C805 = 51205
    GYRE_TPG_CREATE = 51208
    GYRE_NOTIFY_C809 = 51209
    GYRE_TPG_DELETE = 51210
    GYRE_NOTIFY_C80B = 51211
    GYRE_NOTIFY_C80C = 51212
    GYRE_NOTIFY_C80D = 51213
    GYRE_TPG_VLANS = 51214
    GYRE_FTAG_UPDATE = 51215
    TARN_PROTOCOL_CONFIG_CHANGE = 51222
    GYRE_FTAG_NOTICE = 51223
    TARN_ATTR_CHANGE = 51226


class FtagReason(enum.IntEnum):
    """Why an ftag-update entry was sent."""
    NONE = 0
    CREATE = 1
    UPDATE = 2
    DELETE = 3


@dataclass(frozen=True)
class Event:
    """A notification: its opcode and the payload it was decoded from."""
    opcode: int
    raw: bytes = field(repr=False)


@dataclass(frozen=True)
class TopologyCreated(Event):
    topology: int


@dataclass(frozen=True)
class TopologyDeleted(Event):
    topology: int


@dataclass(frozen=True)
class TopologyVlanSet:
    """One record of a topology VLAN change."""
    topology: int
    name: str
    vlans: frozenset[int]


@dataclass(frozen=True)
class TopologyVlans(Event):
    """The VLAN sets of the named topologies were replaced."""
    records: tuple[TopologyVlanSet, ...]


@dataclass(frozen=True)
class FtagChange:
    """One entry of an ftag update."""
    reason: int
    topology: int
    graph: int
    ftag: int
    flags: int

    @property
    def reason_name(self) -> str:
        try:
            return FtagReason(self.reason).name
        except ValueError:
            return f"REASON_{self.reason}"


@dataclass(frozen=True)
class FtagUpdate(Event):
    entries: tuple[FtagChange, ...]


@dataclass(frozen=True)
class AsFormatChanged(Event):
    """Attribute change of kind 1: the AS-number format is now ``format``."""
    format: int


@dataclass(frozen=True)
class TopologyFtagsDeleted(Event):
    """Attribute change of kind 2: these ftags of a topology are gone."""
    topology: int
    ftags: frozenset[int]


@dataclass(frozen=True)
class CachesDeleted(Event):
    """Attribute change of kind 3: drop the Gyre cache."""


@dataclass(frozen=True)
class CacheDumpRequest(Event):
    """Attribute change of kind 4: a process asks for a page of the cache."""
    pid: int
    page: int


@dataclass(frozen=True)
class AttributeChange(Event):
    """An attribute change of a kind the library does not act on."""
    kind: int


@dataclass(frozen=True)
class ConfigChange(Event):
    """The protocol configuration-change notice (to the Tarn service)."""
    type: int
    param: int
    name: str
    context: str
    entries: tuple[int, ...]


@dataclass(frozen=True)
class FtagNotice(Event):
    """The ftag notice to the Gyre service: converged, or a topology stale."""
    converged: bool
    topology: int


@dataclass(frozen=True)
class GyreNotification(Event):
    """A Gyre notification that the client cache does not use."""


@dataclass(frozen=True)
class Registration(Event):
    """A registration message."""


@dataclass(frozen=True)
class Other(Event):
    """An opcode that is none of the services'."""


@dataclass(frozen=True)
class Malformed(Event):
    """A payload too short for what it announces."""
    reason: str


def _build(cls: Callable[..., Event]) -> Callable[[int, bytes, dict[str, Any]], Event]:
    def make(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
        return cls(opcode, raw, **f)
    return make


def _topology(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
    cls = TopologyCreated if opcode == Opcode.GYRE_TPG_CREATE else TopologyDeleted
    return cls(opcode, raw, f["topology"])


def _vlans(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
    return TopologyVlans(opcode, raw, tuple(
        TopologyVlanSet(r["topology"], r["name"], r["vlans"])
        for r in f["records"]))


def _ftags(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
    return FtagUpdate(opcode, raw, tuple(FtagChange(**e) for e in f["entries"]))


def _config(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
    return ConfigChange(opcode, raw, f["type"], f["param"], f["name"],
                        f["context"], tuple(f["entries"]))


def _malformed(opcode: int, raw: bytes, f: dict[str, Any]) -> Event:
    return Malformed(opcode, raw, f["reason"])


_MAKERS: dict[str, Callable[[int, bytes, dict[str, Any]], Event]] = {
    "topology": _topology,
    "topology_vlans": _vlans,
    "ftag_update": _ftags,
    "as_format": _build(AsFormatChanged),
    "topology_ftags_deleted": _build(TopologyFtagsDeleted),
    "caches_deleted": _build(CachesDeleted),
    "cache_dump_request": _build(CacheDumpRequest),
    "attribute_change": _build(AttributeChange),
    "config_change": _config,
    "ftag_notice": _build(FtagNotice),
    "gyre_notification": _build(GyreNotification),
    "registration": _build(Registration),
    "other": _build(Other),
    "malformed": _malformed,
}


def decode(opcode: int, payload: bytes) -> Event:
    """The event a notification carries (never raises on odd payloads)."""
    kind, fields = _layout.fields(opcode, payload)
    return _MAKERS[kind](opcode, bytes(payload), fields)
