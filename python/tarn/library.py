"""libtarn in this process: opening it, and the Tarn queries.

``tarn.open()`` returns a Library handle; the C library underneath is
initialised when the first handle opens and closed when the last one
closes (see _core), so a helper may open and close its own handle inside
a caller's.  A handle is tied to the device it was opened on and raises
once it is closed.

Answers: ``None`` for "not found" (the library never reports an absent
record), values otherwise; a failure the library reports raises TarnError
with the rendered log line.
"""

from __future__ import annotations

import ctypes
import enum
from dataclasses import dataclass
from typing import Iterator, Literal, Optional, Sequence, Union

from . import _core
from . import _native as N
from . import _structs as S
from . import errors as E
from ._core import LOCK, STATE, current_root, name_bytes, optional_name, u32
from .client import AUTO, Client
from .gyre import Gyre

_UNKNOWN = "<unknown>"
_TPG_MASK = 0x3FFFFFFF


class ContextState(enum.IntEnum):
    """A context's state; a value the library does not name is kept as a
    member called ``STATE_<n>``."""
    NONE = 0
    DOWN = 1
    UP = 2

    @classmethod
    def _missing_(cls, value: object) -> Optional["ContextState"]:
        if isinstance(value, int) and not isinstance(value, bool) and \
                0 <= value <= _core.U32_MAX:
            member = int.__new__(cls, value)
            member._name_ = f"STATE_{value}"
            member._value_ = value
            return member
        return None


class AddressFamily(enum.IntEnum):
    """Address-family index of a routing table."""
    NONE = 0
    IPV4 = 1
    IPV6 = 2


@dataclass(frozen=True)
class Context:
    """A context (VRF)."""
    id: int
    name: str
    state: ContextState
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


def open() -> "Library":  # noqa: A001 - the natural name for it
    """Open libtarn for this process on the device in force and return a
    Library handle.

    The first open initialises the C library; later ones (nested, in a
    helper) share it until their own close().  Raises DeviceNotUpError when
    the device has no running configuration yet, WrongDeviceError when a
    library is still open on another device (the C library serves one per
    process), and TarnError when the library reports a failure (a cell it
    does not serve, a database it cannot open).
    """
    with LOCK:
        if STATE.forked:
            _core.reopen_after_fork()
        root = current_root()
        if STATE.opens and STATE.root != root:
            raise E.WrongDeviceError(
                f"a library is open on the device in {STATE.root}, and this "
                f"process serves one device at a time: close it before "
                f"opening one on {root}")
        if STATE.opens == 0:
            _core.init_c(root)
            STATE.root = root
        STATE.opens += 1
        lib = Library(root)
        STATE.libraries.add(lib)
        return lib


_STATES = {int(m): m for m in ContextState}

# Answer buffers, used under the lock only: one allocation saved per query.
_CONTEXT_INFO = S.ContextInfo()
_TABLE_INFO = S.TableInfo()
_IF_CONTEXT_INFO = S.IfContextInfo()


def _context(cid: int, info: S.ContextInfo) -> Context:
    state = info.state
    return Context(cid, info.name.decode("utf-8", "replace"),
                   _STATES.get(state) or ContextState(state), info.reason)


class Library:
    """An open handle on libtarn; get one with ``tarn.open()``."""

    def __init__(self, root: str) -> None:
        self.root = root
        """The host root of the device this library answers for."""
        self._open = True
        self._token: Optional[_core.Token] = STATE.token
        self._clients: list[Client] = []
        self.gyre = Gyre(self)
        """The Gyre client (topologies, ftags, VLANs)."""

    def __repr__(self) -> str:
        state = "open" if self._open else "closed"
        return f"<tarn.Library {state} on {self.root}>"

    # ---- state --------------------------------------------------------------

    @property
    def is_open(self) -> bool:
        """True until close() (or until its device went away)."""
        return self._open

    def require_open(self) -> None:
        """Raise NotInitialisedError unless this handle can answer now."""
        if self._token is not STATE.token:
            self._revalidate()

    def _revalidate(self) -> None:
        with LOCK:
            if not self._open:
                raise E.NotInitialisedError(
                    "the library is closed (close() or the end of its with "
                    "block); open it again with tarn.open()")
            if STATE.forked:
                _core.reopen_after_fork()
                if not self._open:
                    raise E.NotInitialisedError(
                        "the library could not be reopened after fork()")
            root = current_root()
            if root != self.root:
                raise E.WrongDeviceError(
                    f"this library was opened on the device in {self.root}, "
                    f"but the device in force is {root}; open a library "
                    f"inside that device's block, or leave the block first")
            self._token = STATE.token

    def _mark_closed(self) -> None:
        self._open = False
        self._token = None

    def _miss(self, what: str) -> None:
        """After a negative answer: raise when the library reported a
        failure (or its report was held back by the rate limiter); else
        the answer means "not found"."""
        if E.pending() or E.held():
            raise E.failure(what)

    def close(self) -> None:
        """Close this handle and its clients; the C library closes with the
        last open handle (idempotent)."""
        with LOCK:
            if not self._open:
                return
            for client in list(self._clients):
                client._close_locked()
            self._mark_closed()
            STATE.libraries.discard(self)
            STATE.opens -= 1
            if STATE.opens <= 0:
                STATE.opens = 0
                if STATE.forked:
                    STATE.forked = False
                _core.close_c()

    def __enter__(self) -> "Library":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def client(self, *, sap: Union[int, Literal["auto"]] = AUTO,
               name: str = "tarn python client") -> Client:
        """A bus client of this library: see tarn.Client."""
        self.require_open()
        return Client(self, sap=sap, name=name)

    # ---- contexts -------------------------------------------------------------

    def context_id(self, name: str) -> Optional[int]:
        """The id of the context called ``name``, or None."""
        if self._token is not STATE.token:
            self._revalidate()
        if type(name) is str and "\0" not in name:
            key = name.encode()
        else:
            key = name_bytes(name, "name")
        with LOCK:
            cid: int = N.tarn.tarn_get_context_id(key)
            if cid == 0:
                self._miss(f"context id of {name!r}")
                return None
        return cid

    def context(self, key: Union[int, str]) -> Optional[Context]:
        """A context by id or by name, or None."""
        if self._token is not STATE.token:
            self._revalidate()
        if isinstance(key, str):
            found = self.context_id(key)
            if found is None:
                return None
            cid = found
        elif type(key) is int and 0 <= key <= 0xFFFFFFFF:
            cid = key
        else:
            cid = u32(key, "id")
        with LOCK:
            info = _CONTEXT_INFO
            if N.tarn.tarn_get_context_info(cid, info) != 1:
                self._miss(f"context {cid}")
                return None
            return _context(cid, info)

    def contexts(self) -> Iterator[Context]:
        """Every context in ascending id order ("l2-vrf" is never listed).
        The walk runs to its end under the library's lock."""
        self.require_open()
        info = S.ContextInfo()
        out: list[Context] = []
        with LOCK:
            cid = 0
            while True:
                cid = N.tarn.tarn_get_next_context_info(cid, ctypes.byref(info))
                if cid == 0:
                    self._miss("context walk")
                    break
                out.append(_context(cid, info))
        return iter(out)

    # ---- tables ---------------------------------------------------------------

    def table_id(self, context: Union[int, str], af: int,
                 name: str) -> Optional[int]:
        """The id of table ``name`` of family ``af`` in a context given by id
        or name, or None."""
        self.require_open()
        family = u32(af, "af")
        table = name_bytes(name, "name")
        with LOCK:
            if isinstance(context, str):
                tid: int = N.tarn.tarn_context_get_table_id(
                    name_bytes(context, "context"), family, table)
            else:
                tid = N.tarn.tarn_get_table_id(u32(context, "context"),
                                               family, table)
            if tid == 0:
                self._miss(f"table id of {name!r}")
                return None
        return tid

    def interface_table_id(self, ifindex: int, af: int,
                           name: str) -> Optional[int]:
        """The id of table ``name`` in the context of an interface, or None."""
        self.require_open()
        args = (u32(ifindex, "ifindex"), u32(af, "af"), name_bytes(name, "name"))
        with LOCK:
            tid: int = N.tarn.tarn_if_get_table_id(*args)
            if tid == 0:
                self._miss(f"table id of {name!r} for interface {ifindex}")
                return None
        return tid

    def table(self, table_id: int) -> Optional[Table]:
        """A table by id, or None."""
        if self._token is not STATE.token:
            self._revalidate()
        if type(table_id) is int and 0 <= table_id <= 0xFFFFFFFF:
            tid = table_id
        else:
            tid = u32(table_id, "table_id")
        with LOCK:
            info = _TABLE_INFO
            if N.tarn.tarn_get_table_info(tid, info) != 1:
                self._miss(f"table {tid}")
                return None
            return Table(tid, info.context_id,
                         info.name.decode("utf-8", "replace"),
                         info.tpg_id & _TPG_MASK)

    def table_names(self, table_id: int) -> tuple[Optional[str], Optional[str]]:
        """(table name, its context's name); None for what is not found."""
        self.require_open()
        tid = u32(table_id, "table_id")
        tname = ctypes.create_string_buffer(S.NAME_SIZE)
        cname = ctypes.create_string_buffer(S.NAME_SIZE)
        with LOCK:
            if N.tarn.tarn_get_vrf_name_table_name(tid, tname, cname) != 1:
                self._miss(f"names of table {tid}")
        t, c = N.text(tname.value), N.text(cname.value)
        return (None if t == _UNKNOWN else t, None if c == _UNKNOWN else c)

    # ---- interfaces -----------------------------------------------------------

    def interface_context(self, ifindex: int) -> Optional[InterfaceContext]:
        """The context of an interface, or None when it is not known."""
        if self._token is not STATE.token:
            self._revalidate()
        if type(ifindex) is int and 0 <= ifindex <= 0xFFFFFFFF:
            ix = ifindex
        else:
            ix = u32(ifindex, "ifindex")
        with LOCK:
            info = _IF_CONTEXT_INFO
            if N.tarn.tarn_if_get_context_info(ix, info) != 1:
                self._miss(f"context of interface {ix}")
                return None
            return InterfaceContext(
                ix, info.context_id,
                info.context_name.decode("utf-8", "replace"))

    def interfaces(self, context: Optional[str] = None
                   ) -> Iterator[InterfaceContext]:
        """The interfaces that have a context, in ascending ifindex order;
        only those of ``context`` when it is given.  The walk runs to its
        end under the library's lock."""
        self.require_open()
        info = S.IfContextInfo()
        ctx = optional_name(context, "context")
        out: list[InterfaceContext] = []
        with LOCK:
            ifindex = 0
            while True:
                ifindex = N.tarn.tarn_get_next_if_context_info(
                    ifindex, ctx, ctypes.byref(info))
                if ifindex == 0:
                    self._miss("interface walk")
                    break
                out.append(InterfaceContext(ifindex, info.context_id,
                                            N.text(info.context_name)))
        return iter(out)

    def is_interface_usable(self, ifindex: int) -> bool:
        """True when the interface's context exists and is up."""
        if self._token is not STATE.token:
            self._revalidate()
        if type(ifindex) is int and 0 <= ifindex <= 0xFFFFFFFF:
            ix = ifindex
        else:
            ix = u32(ifindex, "ifindex")
        with LOCK:
            ok: bool = N.tarn.tarn_is_if_usable(ix) == 1
            if not ok:
                self._miss(f"interface {ix} usable")
        return ok

    def is_interface_ready(self, ifindex: int) -> bool:
        """True when the interface's context is known."""
        self.require_open()
        ix = u32(ifindex, "ifindex")
        with LOCK:
            ok: bool = N.tarn.tarn_is_if_cli_ready(ix) == 1
            if not ok:
                self._miss(f"interface {ix} ready")
        return ok

    # ---- attributes ---------------------------------------------------------

    def route_limits(self, table_id: int) -> Optional[RouteLimits]:
        """A table's route limits, or None."""
        self.require_open()
        tid = u32(table_id, "table_id")
        rec = S.RtLimits()
        with LOCK:
            if N.tarn.tarn_get_rt_limits_info(tid, ctypes.byref(rec)) != 1:
                self._miss(f"route limits of table {tid}")
                return None
        return RouteLimits(rec.table_id, rec.limit1, rec.limit3,
                           rec.setting1, rec.setting2)

    def site_of_origin(self, ifindex: int) -> Optional[SiteOfOrigin]:
        """An interface's site-of-origin, or None."""
        self.require_open()
        ix = u32(ifindex, "ifindex")
        rec = S.SooInfo()
        with LOCK:
            if N.tarn.tarn_get_if_soo_info(ix, ctypes.byref(rec)) != 1:
                self._miss(f"site-of-origin of interface {ix}")
                return None
        return SiteOfOrigin(rec.word, rec.soo)

    def vpn_id(self, context_name: str) -> Optional[VpnId]:
        """A VRF's VPN id, or None."""
        self.require_open()
        key = name_bytes(context_name, "context_name")
        rec = S.VpnIdInfo()
        with LOCK:
            if N.tarn.tarn_get_context_vpnid(key, ctypes.byref(rec)) != 1:
                self._miss(f"VPN id of {context_name!r}")
                return None
        return VpnId((rec.w0, rec.w1, rec.w2))

    # ---- the AS-number format and the client cache words -------------------

    @property
    def as_format(self) -> int:
        """The AS-number display format: the tracked one while cache mode is
        on (Client.enable_cache), else the default 1."""
        self.require_open()
        with LOCK:
            fmt: int = N.tarn.tarn_get_as_format()
        return fmt

    def refresh_as_format(self) -> int:
        """Read the format from the database into the cache now; returns
        it.  Raises TarnError when it cannot be read."""
        self.require_open()
        with LOCK:
            if N.tarn.tarn_refresh_as_format_info() != 1:
                raise E.failure("the AS format could not be read")
            fmt: int = N.tarn_cache.as_format
        return fmt

    @property
    def cache_enabled(self) -> bool:
        """True while the library's client cache mode is on."""
        self.require_open()
        with LOCK:
            on: bool = N.tarn.tarn_cache_is_enabled() == 1
        return on

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
        kind = u32(type, "type")
        ctx = name_bytes(context, "context")
        proto = optional_name(name, "name")
        word = u32(param, "param")
        count = len(entries)
        if count > 0xFFFF:
            raise ValueError("entries: at most 65535")
        words = [u32(e, "entries[]") for e in entries]
        arr = (ctypes.c_uint32 * max(count, 1))(*words)
        with LOCK:
            ok = N.tarn.tarn_send_protocol_config_change_msg(
                kind, proto, word, ctx, count, arr)
            if ok != 1:
                raise E.failure("the configuration-change notice was not sent")
