"""libtarn in this process: initialisation and the Tarn queries.

The C library keeps one state per process (its client record, its database
handles, its registration), so there is one open Library at a time:
``tarn.open()`` initialises it and returns it, ``close()`` (or the end of a
``with`` block) closes it.

Answers: ``None`` for "not found" (the library never reports an absent
record), values otherwise; a failure the library reports raises TarnError
with the rendered log line.
"""

from __future__ import annotations

import ctypes
import enum
from dataclasses import dataclass
from typing import TYPE_CHECKING, Iterator, Optional, Sequence, Union

from . import _native as N
from . import _structs as S
from . import _walks
from .device import current_root
from .errors import (DeviceNotUpError, NotInitialisedError, check, failure,
                     pending, take_log_lines)

if TYPE_CHECKING:
    from .client import Client

_UNKNOWN = "<unknown>"
_TPG_MASK = 0x3FFFFFFF


class ContextState(enum.IntEnum):
    """A context's state."""
    NONE = 0
    DOWN = 1
    UP = 2


class AddressFamily(enum.IntEnum):
    """Address-family index of a routing table."""
    NONE = 0
    IPV4 = 1
    IPV6 = 2


def _enum_or_int(cls, value: int):
    try:
        return cls(value)
    except ValueError:
        return value


@dataclass(frozen=True)
class Context:
    """A context (VRF)."""
    id: int
    name: str
    state: Union[ContextState, int]
    reason: int

    @property
    def state_text(self) -> str:
        """The library's text of the state ("Up", ...)."""
        return N.text(N.tarn.tarn_state2str(int(self.state)))

    @property
    def reason_text(self) -> str:
        """The library's text of the down reason."""
        return N.text(N.tarn.tarn_reason2str(self.reason))


@dataclass(frozen=True)
class Table:
    """A routing table, or a fabric topology registered as a table."""
    id: int
    context_id: int
    name: str
    topology: int


@dataclass(frozen=True)
class InterfaceContext:
    """The context an interface is in."""
    ifindex: int
    context_id: int
    context_name: str


@dataclass(frozen=True)
class RouteLimits:
    """A table's route limits (the stored second word is not handed out)."""
    table_id: int
    limit1: int
    limit3: int
    setting1: int
    setting2: int


@dataclass(frozen=True)
class SiteOfOrigin:
    """An interface's site-of-origin: a word and the 64-bit value."""
    word: int
    value: int


@dataclass(frozen=True)
class VpnId:
    """A VRF's VPN id: the three words of its record."""
    words: tuple[int, int, int]


_library: Optional["Library"] = None


def open() -> "Library":  # noqa: A001 - the natural name for it
    """Initialise libtarn for this process and the device in force.

    Returns the open Library (the same one when it is open already).  Raises
    DeviceNotUpError when the device has no running configuration yet, and
    TarnError when the library reports a failure (a cell it does not serve,
    a database it cannot open).
    """
    global _library
    if _library is not None and _library.is_open:
        return _library
    take_log_lines()  # whatever came before is not this call's
    if N.tarn.tarn_api_init() != 1:
        raise failure("tarn_api_init failed")
    if not N.tarn_clt or N.tarn_clt.contents.initialized == 0:
        raise DeviceNotUpError(
            f"the device in {current_root()} is not up (no running "
            f"configuration); load one with Device.load() or tarnctl load",
            take_log_lines())
    check("tarn_api_init")
    _library = Library()
    return _library


def close_if_open() -> None:
    """Close the library when it is open (used when a device goes away)."""
    if _library is not None and _library.is_open:
        _library.close()


class Library:
    """The open libtarn of this process; get it with ``tarn.open()``."""

    def __init__(self) -> None:
        from .gyre import Gyre
        self._open = True
        self._clients: list = []
        self.gyre = Gyre(self)
        """The Gyre client (topologies, ftags, VLANs)."""

    # ---- state --------------------------------------------------------------

    @property
    def is_open(self) -> bool:
        """True until close() (or another tarn.open() after it)."""
        return self._open and _library is self

    def require_open(self) -> None:
        if not self.is_open:
            raise NotInitialisedError(
                "the library is closed; call tarn.open() again")

    def _miss(self, what: str) -> None:
        """After a negative answer: raise when the library reported a
        failure, or when it is closed (its report may have been held back
        by the rate limiter); else the answer means "not found"."""
        if pending():
            raise failure(what, NotInitialisedError if not self.is_open
                          else None)
        if not self.is_open:
            raise NotInitialisedError(
                f"{what}: the library is closed; call tarn.open() again")

    def close(self) -> None:
        """Close clients, the Gyre side and the library (idempotent)."""
        if not self._open:
            return
        for client in list(self._clients):
            client.close()
        N.tarn.gyre_api_close()
        N.tarn.tarn_api_close()
        self._open = False

    def __enter__(self) -> "Library":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def client(self, **kwargs) -> "Client":
        """A bus client of this library: see tarn.Client."""
        from .client import Client
        return Client(self, **kwargs)

    # ---- contexts -------------------------------------------------------------

    def context_id(self, name: str) -> Optional[int]:
        """The id of the context called ``name``, or None."""
        cid = N.tarn.tarn_get_context_id(name.encode())
        if cid == 0:
            self._miss(f"context id of {name!r}")
            return None
        return cid

    def context(self, key: Union[int, str]) -> Optional[Context]:
        """A context by id or by name, or None."""
        if isinstance(key, str):
            cid = self.context_id(key)
            if cid is None:
                return None
        else:
            cid = int(key)
        info = S.ContextInfo()
        if N.tarn.tarn_get_context_info(cid, ctypes.byref(info)) != 1:
            self._miss(f"context {cid}")
            return None
        return _context(cid, info)

    def contexts(self) -> Iterator[Context]:
        """Every context in ascending id order ("l2-vrf" is never listed).

        A walk over the Tarn database: finish it before starting another."""
        info = S.ContextInfo()

        def step(prev: Optional[Context]) -> Optional[Context]:
            cid = N.tarn.tarn_get_next_context_info(
                0 if prev is None else prev.id, ctypes.byref(info))
            if cid == 0:
                self._miss("context walk")
                return None
            return _context(cid, info)

        return _walks.walk(_walks.TARN_DB, lambda: step(None), step)

    # ---- tables ---------------------------------------------------------------

    def table_id(self, context: Union[int, str], af: int,
                 name: str) -> Optional[int]:
        """The id of table ``name`` of family ``af`` in a context given by id
        or name, or None."""
        if isinstance(context, str):
            tid = N.tarn.tarn_context_get_table_id(context.encode(), int(af),
                                                    name.encode())
        else:
            tid = N.tarn.tarn_get_table_id(int(context), int(af), name.encode())
        if tid == 0:
            self._miss(f"table id of {name!r}")
            return None
        return tid

    def interface_table_id(self, ifindex: int, af: int,
                           name: str) -> Optional[int]:
        """The id of table ``name`` in the context of an interface, or None."""
        tid = N.tarn.tarn_if_get_table_id(ifindex, int(af), name.encode())
        if tid == 0:
            self._miss(f"table id of {name!r} for interface {ifindex}")
            return None
        return tid

    def table(self, table_id: int) -> Optional[Table]:
        """A table by id, or None."""
        info = S.TableInfo()
        if N.tarn.tarn_get_table_info(table_id, ctypes.byref(info)) != 1:
            self._miss(f"table {table_id}")
            return None
        return Table(table_id, info.context_id, N.text(info.name),
                     info.tpg_id & _TPG_MASK)

    def table_names(self, table_id: int) -> tuple[Optional[str], Optional[str]]:
        """(table name, its context's name); None for what is not found."""
        tname = ctypes.create_string_buffer(S.NAME_SIZE)
        cname = ctypes.create_string_buffer(S.NAME_SIZE)
        if N.tarn.tarn_get_vrf_name_table_name(table_id, tname, cname) != 1:
            self._miss(f"names of table {table_id}")
        t, c = N.text(tname.value), N.text(cname.value)
        return (None if t == _UNKNOWN else t, None if c == _UNKNOWN else c)

    # ---- interfaces -----------------------------------------------------------

    def interface_context(self, ifindex: int) -> Optional[InterfaceContext]:
        """The context of an interface, or None when it is not known."""
        info = S.IfContextInfo()
        if N.tarn.tarn_if_get_context_info(ifindex, ctypes.byref(info)) != 1:
            self._miss(f"context of interface {ifindex}")
            return None
        return InterfaceContext(ifindex, info.context_id,
                                N.text(info.context_name))

    def interfaces(self, context: Optional[str] = None
                   ) -> Iterator[InterfaceContext]:
        """The interfaces that have a context, in ascending ifindex order;
        only those of ``context`` when it is given.  A walk over the Tarn
        database."""
        info = S.IfContextInfo()
        ctx = N.name_arg(context)

        def step(prev: Optional[InterfaceContext]) -> Optional[InterfaceContext]:
            ifindex = N.tarn.tarn_get_next_if_context_info(
                0 if prev is None else prev.ifindex, ctx, ctypes.byref(info))
            if ifindex == 0:
                self._miss("interface walk")
                return None
            return InterfaceContext(ifindex, info.context_id,
                                    N.text(info.context_name))

        return _walks.walk(_walks.TARN_DB, lambda: step(None), step)

    def is_interface_usable(self, ifindex: int) -> bool:
        """True when the interface's context exists and is up."""
        ok = N.tarn.tarn_is_if_usable(ifindex) == 1
        if not ok:
            self._miss(f"interface {ifindex} usable")
        return ok

    def is_interface_ready(self, ifindex: int) -> bool:
        """True when the interface's context is known."""
        ok = N.tarn.tarn_is_if_cli_ready(ifindex) == 1
        if not ok:
            self._miss(f"interface {ifindex} ready")
        return ok

    # ---- attributes ---------------------------------------------------------

    def route_limits(self, table_id: int) -> Optional[RouteLimits]:
        """A table's route limits, or None."""
        rec = S.RtLimits()
        if N.tarn.tarn_get_rt_limits_info(table_id, ctypes.byref(rec)) != 1:
            self._miss(f"route limits of table {table_id}")
            return None
        return RouteLimits(rec.table_id, rec.limit1, rec.limit3,
                           rec.setting1, rec.setting2)

    def site_of_origin(self, ifindex: int) -> Optional[SiteOfOrigin]:
        """An interface's site-of-origin, or None."""
        rec = S.SooInfo()
        if N.tarn.tarn_get_if_soo_info(ifindex, ctypes.byref(rec)) != 1:
            self._miss(f"site-of-origin of interface {ifindex}")
            return None
        return SiteOfOrigin(rec.word, rec.soo)

    def vpn_id(self, context_name: str) -> Optional[VpnId]:
        """A VRF's VPN id, or None."""
        rec = S.VpnIdInfo()
        if N.tarn.tarn_get_context_vpnid(context_name.encode(),
                                         ctypes.byref(rec)) != 1:
            self._miss(f"VPN id of {context_name!r}")
            return None
        return VpnId((rec.w0, rec.w1, rec.w2))

    # ---- the AS-number format and the client cache words -------------------

    @property
    def as_format(self) -> int:
        """The AS-number display format: the tracked one while cache mode is
        on (Client.enable_cache), else the default 1."""
        self.require_open()
        return N.tarn.tarn_get_as_format()

    def refresh_as_format(self) -> int:
        """Read the format from the database into the cache now; returns
        it.  Raises TarnError when it cannot be read."""
        if N.tarn.tarn_refresh_as_format_info() != 1:
            raise failure("the AS format could not be read")
        return N.tarn_cache.as_format

    @property
    def cache_enabled(self) -> bool:
        """True while the library's client cache mode is on."""
        return N.tarn.tarn_cache_is_enabled() == 1

    # ---- the configuration-change notice -------------------------------------

    def send_config_change(self, type: int, context: str, *,
                           name: Optional[str] = None, param: int = 0,
                           entries: Sequence[int] = ()) -> None:
        """Tell the Tarn service that a protocol's configuration changed
        (``type`` 1..64, the context's name, an optional protocol name, a
        parameter word and up to 65535 entry words).  Needs a registered
        client (Library.client()); raises TarnError when the library
        refuses or the bus fails."""
        self.require_open()
        count = len(entries)
        if count > 0xFFFF:
            raise ValueError("at most 65535 entries")
        arr = (ctypes.c_uint32 * max(count, 1))(*entries)
        ok = N.tarn.tarn_send_protocol_config_change_msg(
            type, N.name_arg(name), param, context.encode(), count, arr)
        if ok != 1:
            raise failure("the configuration-change notice was not sent")


def _context(cid: int, info: S.ContextInfo) -> Context:
    return Context(cid, N.text(info.name),
                   _enum_or_int(ContextState, info.state), info.reason)
