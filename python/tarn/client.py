"""The client side: a bus handle registered with the library, the client
caches, and a loop that hands received messages to ``tarn_dispatch``.

The library never reads the bus itself: a client process receives its
messages and hands each to the library.  ``Client`` does that as an
iterator (``messages()``), with a callback (``run()``), without waiting
(``poll()``, for a ``selectors`` loop on ``fileno()``) or in asyncio
(``async for message in client.amessages()``).
"""

from __future__ import annotations

import asyncio
import ctypes
import errno
import os
import struct
import sys
import tempfile
import time
from dataclasses import dataclass, field
from typing import (TYPE_CHECKING, AsyncIterator, Callable, Iterator, Literal,
                    Optional, Union, cast)

from . import _native as N
from . import _structs as S
from . import errors as E
from ._core import LOCK, STATE, name_bytes, u32
from .events import Event, Opcode, decode

if TYPE_CHECKING:
    from .library import Library

HANDLE_NONE = 0xFFFFFFFF
AUTO: Literal["auto"] = "auto"
# Access points tried for a client that asks for none in particular.
FIRST_SAP = 1100
LAST_SAP = 1199
OPC_ATTR_CHANGE = 51226
# tarnctl's names, for the opcodes the host knows only by number.
_OPCODE_NAMES = {int(op): op.name for op in Opcode}


@dataclass(frozen=True)
class Message:
    """A received bus message and what the library did with it.

    ``result`` is ``tarn_dispatch``'s answer: 1 a Tarn attribute change the
    library applied (and released), 0 a Gyre notification it applied (or,
    with a TARN_CELL report in ``log_lines``, a message refused outside cell
    1), -1 not the library's.  The Client releases every message the library
    did not.  ``log_lines`` holds what the library logged while handling it;
    ``event`` is the payload decoded (tarn.events), ``payload`` the raw
    bytes.
    """
    opcode: int
    name: str
    payload: bytes
    sender: int
    id: int
    result: int
    log_lines: tuple[str, ...] = field(default=())

    @property
    def handled(self) -> bool:
        """True when the library took the message and applied it."""
        if self.result == 1:
            return True
        return self.result == 0 and not any("TARN_CELL" in line
                                            for line in self.log_lines)

    @property
    def event(self) -> Event:
        """The notification decoded: one frozen class per kind."""
        return decode(self.opcode, self.payload)

    @property
    def op(self) -> Optional[Opcode]:
        """The opcode as an Opcode, None for one this package does not
        know."""
        try:
            return Opcode(self.opcode)
        except ValueError:
            return None


class Client:
    """A bus handle registered with the library (get one from
    ``Library.client()``).

    ``sap``: ``"auto"`` (default) binds the first free access point from
    1100 to 1199, so that other processes can address this client (cache
    dumps); a number binds that one; -1 binds a dynamic handle.  Both Tarn
    and Gyre registrations are made.  The library serves one bus handle at
    a time: the client registered (or that turned its caches on) last;
    closing it hands the registration back to the one before, so closing a
    client never disables another.  ``close()`` (or the end of a ``with``
    block) releases the handle.
    """

    def __init__(self, library: "Library", *,
                 sap: Union[int, Literal["auto"]] = AUTO,
                 name: str = "tarn python client") -> None:
        self._lib = library
        self._closed = False
        self._orphaned = False
        self._wanted_as_format = False
        self._wanted_gyre = False
        self._wakers: list[Callable[[], None]] = []
        label = name_bytes(name, "name")
        with LOCK:
            library.require_open()
            self.handle, self.sap = _bind(sap, label)
            try:
                self._register()
            except BaseException:
                self._closed = True
                if not STATE.clients:
                    N.tarn.tarn_deregister()
                N.host.bus_unbind(self.handle)
                raise
            STATE.clients.append(self)
            library._clients.append(self)

    def _register(self) -> None:
        if N.tarn.tarn_register(self.handle) != 1:
            raise E.failure("tarn_register failed")
        if N.tarn.gyre_register(self.handle) != 1:
            raise E.failure("gyre_register failed")

    def __repr__(self) -> str:
        return f"<tarn.Client handle {self.handle} sap {self.sap}>"

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    @property
    def closed(self) -> bool:
        return self._closed

    def _check(self) -> None:
        if self._orphaned:
            raise E.ClosedError(
                errno.EBADF,
                "this client was made before fork() in the parent process; "
                "its bus handle stays the parent's: make a new client in the "
                "child (library.client())")
        if self._closed:
            raise E.ClosedError(errno.EBADF, "the client is closed")

    def _orphan(self) -> None:
        """After fork(), in the child."""
        self._orphaned = True
        self._closed = True
        self._wake()

    def close(self) -> None:
        """Caches released, registration withdrawn or handed to another
        client, handle released."""
        with LOCK:
            self._close_locked()

    def _wake(self) -> None:
        for wake in list(self._wakers):
            wake()

    def _close_locked(self) -> None:
        if self._closed:
            return
        self._closed = True
        self._wake()
        if self in self._lib._clients:
            self._lib._clients.remove(self)
        if self in STATE.clients:
            STATE.clients.remove(self)
        self._release_caches()
        record = N.tarn_clt.contents.bus_handle if N.tarn_clt else HANDLE_NONE
        if STATE.clients:
            if record == self.handle:
                # The library held this handle: give it the newest of the
                # others, with the cache subscription it needs.
                heir = STATE.clients[-1]
                heir._register()
                if STATE.as_format_owners or STATE.gyre_owners:
                    N.host.tarnhost_bus_subscribe(heir.handle, OPC_ATTR_CHANGE, 1)
            N.tarn.gyre_deregister(self.handle)
        else:
            N.tarn.gyre_deregister(self.handle)
            N.tarn.tarn_deregister()
        N.host.bus_unbind(self.handle)
        E.take_log_lines()
        E.forget_held()

    # ---- caches ---------------------------------------------------------------

    def enable_cache(self, *, as_format: bool = True, gyre: bool = True) -> None:
        """Turn the client caches on: the AS-number format (tracked from now
        on) and the Gyre cache (built from the database now, then kept fresh
        by the notifications this client dispatches).  This client becomes
        the one the library serves.  The caches stay on while any client
        wants them."""
        self._lib.require_open()
        with LOCK:
            self._check()
            record = N.tarn_clt.contents.bus_handle if N.tarn_clt else HANDLE_NONE
            if record != self.handle:
                self._register()
                STATE.clients.remove(self)
                STATE.clients.append(self)
            if as_format:
                if N.tarn.tarn_track_as_format() != 1:
                    raise E.failure("tarn_track_as_format failed")
                STATE.as_format_owners.add(id(self))
                self._wanted_as_format = True
            if gyre:
                attr = S.GyreCacheAttr(self.handle)
                if N.tarn.gyre_enable_cache_mode(ctypes.byref(attr)) != 1:
                    raise E.failure("gyre_enable_cache_mode failed")
                STATE.gyre_owners.add(id(self))
                STATE.gyre_cache_on = True
                self._wanted_gyre = True
            if STATE.as_format_owners or STATE.gyre_owners:
                N.host.tarnhost_bus_subscribe(self.handle, OPC_ATTR_CHANGE, 1)

    def disable_cache(self) -> None:
        """This client no longer wants the caches; they go off (the queries
        read the database again) when no other client wants them."""
        with LOCK:
            if self._closed:
                return
            self._release_caches()

    def _release_caches(self) -> None:
        if self._wanted_gyre:
            self._wanted_gyre = False
            STATE.gyre_owners.discard(id(self))
            if not STATE.gyre_owners and STATE.gyre_cache_on:
                N.tarn.gyre_disable_cache_mode()
                STATE.gyre_cache_on = False
        if self._wanted_as_format:
            self._wanted_as_format = False
            STATE.as_format_owners.discard(id(self))
        if not STATE.as_format_owners and not STATE.gyre_owners:
            N.tarn.tarn_disable_cache_mode()

    # ---- receiving -------------------------------------------------------------

    def fileno(self) -> int:
        """A descriptor that is readable when a message is waiting (for
        ``selectors`` and asyncio)."""
        self._check()
        fd: int = N.host.tarnhost_bus_fd(self.handle)
        if fd < 0:
            raise OSError(errno.EBADF, "the client's handle is closed")
        return fd

    def receive(self, timeout: Optional[float] = None) -> Optional[Message]:
        """Wait up to ``timeout`` seconds (None: for ever, 0: not at all) for
        one message, hand it to the library and return it; None when none
        came in time.  The wait does not hold the library's lock."""
        self._check()
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            if deadline is None:
                wait_ms = 1000  # in slices, so that Ctrl-C gets through
            else:
                wait_ms = max(0, int((deadline - time.monotonic()) * 1000))
            raw = N.host.tarnhost_bus_recv_ms(self.handle, wait_ms)
            if raw:
                return self._dispatch(raw)
            self._check()
            if deadline is not None and time.monotonic() >= deadline:
                return None

    def _dispatch(self, raw: int) -> Message:
        length = ctypes.c_uint32(0)
        with LOCK:
            data = N.host.bus_payload_get(raw, ctypes.byref(length))
            payload = ctypes.string_at(data, length.value) if data else b""
            opcode = N.host.bus_opc_get(raw)
            known = _OPCODE_NAMES.get(opcode)
            name = known if known is not None else \
                N.text(N.host.bus_opc_name_get(opcode))
            sender = N.host.tarnhost_bus_sender_get(raw)
            msg_id = N.host.bus_msg_id_get(raw)
            E.take_log_lines()
            result = N.tarn.tarn_dispatch(raw)
            # 1: the library applied the message and released it; otherwise
            # it is still ours to release.
            if result != 1:
                N.host.bus_drop(self.handle, raw)
            lines = E.take_log_lines()
            # Debug and console lines are kept too while capturing: do not
            # let a long-running loop accumulate them.
            N.host.tarnhost_capture_clear()
            E.forget_held()
        return Message(opcode, name, payload, sender, msg_id, result,
                       tuple(lines))

    def poll(self) -> list[Message]:
        """Dispatch every message waiting now, without waiting."""
        self._check()
        out: list[Message] = []
        while True:
            raw = N.host.tarnhost_bus_recv_ms(self.handle, 0)
            if not raw:
                return out
            out.append(self._dispatch(raw))

    def messages(self, timeout: Optional[float] = None,
                 count: Optional[int] = None) -> Iterator[Message]:
        """Dispatch messages as they come and yield each; stop after
        ``count`` messages, or when none came for ``timeout`` seconds."""
        seen = 0
        while count is None or seen < count:
            msg = self.receive(timeout)
            if msg is None:
                return
            seen += 1
            yield msg

    def run(self, callback: Callable[[Message], object],
            timeout: Optional[float] = None,
            count: Optional[int] = None) -> int:
        """Call ``callback`` with every dispatched message (see messages());
        returns how many there were.  A callback that returns False stops."""
        n = 0
        for msg in self.messages(timeout, count):
            n += 1
            if callback(msg) is False:
                break
        return n

    async def amessages(self) -> AsyncIterator[Message]:
        """Dispatch messages in an asyncio loop and yield each, until the
        client is closed (from the loop or from another thread): then the
        iteration ends."""
        loop = asyncio.get_running_loop()
        fd = self.fileno()
        ready = asyncio.Event()

        def wake() -> None:
            try:
                loop.call_soon_threadsafe(ready.set)
            except RuntimeError:  # the loop is closed already
                pass

        self._wakers.append(wake)
        loop.add_reader(fd, ready.set)
        try:
            while not self._closed:
                for msg in self.poll():
                    yield msg
                    if self._closed:
                        return
                ready.clear()
                if self._closed:
                    return
                # Level-triggered: a message that came after the poll above
                # makes the reader fire again.
                await ready.wait()
        finally:
            self._wakers.remove(wake)
            loop.remove_reader(fd)

    # ---- notices ---------------------------------------------------------------

    def fetch_cache_dump(self, handle: int, timeout: float = 5.0) -> str:
        """Another client's Gyre cache, fetched page by page over the bus
        and rendered by the library (see tarn.fetch_cache_dump)."""
        return fetch_cache_dump(handle, timeout)


def _bind(sap: Union[int, str], label: bytes) -> tuple[int, int]:
    if sap == AUTO:
        for s in range(FIRST_SAP, LAST_SAP + 1):
            h: int = N.host.bus_bind(0, s, None, label)
            if h != HANDLE_NONE:
                return h, s
            if ctypes.get_errno() not in (0, errno.EADDRINUSE):
                break
        raise OSError(errno.EADDRINUSE,
                      f"no free bus access point from {FIRST_SAP} to {LAST_SAP}")
    if isinstance(sap, bool) or not isinstance(sap, int):
        raise TypeError(f"sap must be an int or \"auto\", not {type(sap).__name__}")
    if not -1 <= sap <= 0x7FFFFFFF:
        raise ValueError(f"sap {sap} is out of range -1..2147483647")
    h = N.host.bus_bind(0, sap, None, label)
    if h == HANDLE_NONE:
        err = ctypes.get_errno() or errno.EINVAL
        raise OSError(err, f"cannot bind bus access point {sap}: "
                           f"{os.strerror(err)}")
    return h, sap


_DUMP_REQUEST = 28


def _probe(requester: int, handle: int, sap: int, timeout: float) -> None:
    """Ask the client for the first page of its dump and wait at most
    ``timeout`` seconds for any answer: the library's own requester waits
    9 s a page and cannot tell why nothing came."""
    who = f"the client with bus handle {handle} (access point {sap})"
    req = bytearray(_DUMP_REQUEST)
    struct.pack_into("=H", req, 2, 4)          # attribute change of kind 4
    struct.pack_into("=I", req, 4, os.getpid())
    struct.pack_into("=I", req, 20, _DUMP_REQUEST)
    struct.pack_into("=I", req, 24, 1)         # the first page
    buf = ctypes.create_string_buffer(bytes(req), len(req))
    opts = (ctypes.c_uint32 * 17)(1)
    ctypes.set_errno(0)
    if N.host.bus_send(requester, 0xFE000000, sap, OPC_ATTR_CHANGE, buf,
                       len(req), None, None, opts) != 0:
        err = ctypes.get_errno() or errno.EIO
        if err in (errno.ECONNREFUSED, errno.ENOENT):
            raise ConnectionRefusedError(
                err, f"{who} is gone: its process has exited "
                     f"({os.strerror(err)})")
        raise OSError(err, f"cannot send the dump request to {who}: "
                           f"{os.strerror(err)}")
    raw = N.host.tarnhost_bus_recv_ms(requester, max(0, int(timeout * 1000)))
    if not raw:
        raise TimeoutError(
            errno.ETIMEDOUT,
            f"{who} did not answer within {timeout:g} s: nobody dispatches "
            f"its messages (its process is stopped or busy, or its loop does "
            f"not hand messages to tarn_dispatch)")
    N.host.bus_drop(requester, raw)


def fetch_cache_dump(handle: int, timeout: float = 5.0) -> str:
    """The Gyre cache of the client holding bus ``handle`` (a handle bound
    at an access point, such as a Client's or the one ``tarnctl watch``
    prints), fetched over the bus and rendered by the library's requester.

    The client is asked first and must answer within ``timeout`` seconds.
    Raises LookupError when the handle serves no access point,
    ConnectionRefusedError when its process is gone, TimeoutError (naming
    the likely cause) when nobody answers in time, and TarnError when the
    library's dump fails."""
    target = u32(handle, "handle")
    given = cast(object, timeout)  # callers without a type checker
    if isinstance(given, bool) or not isinstance(given, (int, float)) or \
            not 0 <= given <= 3600:
        raise ValueError(f"timeout {timeout!r} is not a number of seconds "
                         f"from 0 to 3600")
    sap = N.host.tarnhost_bus_handle_sap(target)
    if sap < 0:
        raise LookupError(f"bus handle {target} serves no access point")
    requester = N.host.bus_bind(4, -1, None, b"tarn python dump")
    if requester == HANDLE_NONE:
        err = ctypes.get_errno() or errno.EIO
        raise OSError(err, "cannot bind a bus handle for the dump")
    try:
        _probe(requester, target, sap, timeout)
        with LOCK:
            # The requester prints on standard output: send it to a file.
            sys.stdout.flush()
            N.libc.fflush(None)
            with tempfile.TemporaryFile() as out:
                saved = os.dup(1)
                try:
                    os.dup2(out.fileno(), 1)
                    rc = N.tarn.gyre_client_dbg_print_cache(
                        requester, 0xFE000000, sap)
                    N.libc.fflush(None)
                finally:
                    os.dup2(saved, 1)
                    os.close(saved)
                out.seek(0)
                text = out.read().decode("utf-8", errors="replace")
            if rc != 0:
                raise E.failure(
                    f"the cache dump from handle {target} failed "
                    f"({os.strerror(rc) if 0 < rc < 200 else rc})")
    finally:
        N.host.bus_unbind(requester)
    return text
