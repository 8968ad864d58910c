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
import sys
import tempfile
import time
from dataclasses import dataclass, field
from typing import (TYPE_CHECKING, AsyncIterator, Callable, Iterator, Optional,
                    Union)

from . import _native as N
from . import _structs as S
from .errors import failure, take_log_lines

if TYPE_CHECKING:
    from .library import Library

HANDLE_NONE = 0xFFFFFFFF
AUTO = "auto"
# Access points tried for a client that asks for none in particular.
FIRST_SAP = 1100
LAST_SAP = 1199

_gyre_cache_on = False


def gyre_cache_enabled() -> bool:
    return _gyre_cache_on


@dataclass(frozen=True)
class Message:
    """A received bus message and what the library did with it.

    ``result`` is ``tarn_dispatch``'s answer: 1 a Tarn attribute change the
    library applied (and released), 0 a Gyre notification it applied (or,
    with a TARN_CELL report in ``log_lines``, a message refused outside cell
    1), -1 not the library's.  The Client releases every message the library
    did not.  ``log_lines`` holds what the library logged while handling it.
    """
    opcode: int
    name: str
    payload: bytes
    sender: int
    id: int
    result: int
    log_lines: list[str] = field(default_factory=list)

    @property
    def handled(self) -> bool:
        """True when the library took the message and applied it."""
        if self.result == 1:
            return True
        return self.result == 0 and not any("TARN_CELL" in line
                                            for line in self.log_lines)


class Client:
    """A bus handle registered with the library (get one from
    ``Library.client()``).

    ``sap``: ``"auto"`` (default) binds the first free access point from
    1100 to 1199, so that other processes can address this client (cache
    dumps); a number binds that one; -1 binds a dynamic handle.  Both Tarn
    and Gyre registrations are made; ``close()`` (or the end of a ``with``
    block) undoes them and releases the handle.
    """

    def __init__(self, library: "Library", *, sap: Union[int, str] = AUTO,
                 name: str = "tarn python client") -> None:
        library.require_open()
        self._lib = library
        self.handle, self.sap = _bind(sap, name)
        self._closed = False
        try:
            if N.tarn.tarn_register(self.handle) != 1:
                raise failure("tarn_register failed")
            if N.tarn.gyre_register(self.handle) != 1:
                raise failure("gyre_register failed")
        except BaseException:
            N.tarn.tarn_deregister()
            N.host.bus_unbind(self.handle)
            self._closed = True
            raise
        library._clients.append(self)

    def __repr__(self) -> str:
        return f"<tarn.Client handle {self.handle} sap {self.sap}>"

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        """Caches off, registrations withdrawn, handle released."""
        if self._closed:
            return
        self._closed = True
        self.disable_cache()
        N.tarn.gyre_deregister(self.handle)
        N.tarn.tarn_deregister()
        N.host.bus_unbind(self.handle)
        if self in self._lib._clients:
            self._lib._clients.remove(self)

    # ---- caches ---------------------------------------------------------------

    def enable_cache(self, *, as_format: bool = True, gyre: bool = True) -> None:
        """Turn the client caches on: the AS-number format (tracked from now
        on) and the Gyre cache (built from the database now, then kept fresh
        by the notifications this client dispatches)."""
        global _gyre_cache_on
        if as_format and N.tarn.tarn_track_as_format() != 1:
            raise failure("tarn_track_as_format failed")
        if gyre:
            attr = S.GyreCacheAttr(self.handle)
            if N.tarn.gyre_enable_cache_mode(ctypes.byref(attr)) != 1:
                raise failure("gyre_enable_cache_mode failed")
            _gyre_cache_on = True

    def disable_cache(self) -> None:
        """Turn both caches off (the queries read the database again)."""
        global _gyre_cache_on
        if _gyre_cache_on:
            N.tarn.gyre_disable_cache_mode()
            _gyre_cache_on = False
        N.tarn.tarn_disable_cache_mode()

    # ---- receiving -------------------------------------------------------------

    def fileno(self) -> int:
        """A descriptor that is readable when a message is waiting (for
        ``selectors`` and asyncio).  Raises OSError when the host offers
        none."""
        if not N.HAVE_BUS_FD:
            raise OSError(errno.ENOTSUP, "this libtarnhost has no bus descriptor")
        fd = N.host.tarnhost_bus_fd(self.handle)
        if fd < 0:
            raise OSError(errno.EBADF, "the client's handle is closed")
        return fd

    def receive(self, timeout: Optional[float] = None) -> Optional[Message]:
        """Wait up to ``timeout`` seconds (None: for ever, 0: not at all) for
        one message, hand it to the library and return it; None when none
        came in time."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            if deadline is None:
                wait_ms = 1000  # in slices, so that Ctrl-C gets through
            else:
                wait_ms = max(0, int((deadline - time.monotonic()) * 1000))
            raw = N.host.tarnhost_bus_recv_ms(self.handle, wait_ms)
            if raw:
                return self._dispatch(raw)
            if self._closed:
                raise OSError(errno.EBADF, "the client is closed")
            if deadline is not None and time.monotonic() >= deadline:
                return None

    def _dispatch(self, raw: int) -> Message:
        length = ctypes.c_uint32(0)
        data = N.host.bus_payload_get(raw, ctypes.byref(length))
        payload = ctypes.string_at(data, length.value) if data else b""
        opcode = N.host.bus_opc_get(raw)
        name = N.text(N.host.bus_opc_name_get(opcode))
        sender = N.host.tarnhost_bus_sender_get(raw)
        msg_id = N.host.bus_msg_id_get(raw)
        take_log_lines()
        result = N.tarn.tarn_dispatch(raw)
        # 1: the library applied the message and released it; otherwise it
        # is still ours to release.
        if result != 1:
            N.host.bus_drop(self.handle, raw)
        lines = take_log_lines()
        # Debug and console lines are kept too while capturing: do not let
        # a long-running loop accumulate them.
        N.host.tarnhost_capture_clear()
        return Message(opcode, name, payload, sender, msg_id, result, lines)

    def poll(self) -> list[Message]:
        """Dispatch every message waiting now, without waiting."""
        out = []
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
        """Dispatch messages in an asyncio loop and yield each, for ever;
        the loop waits on fileno() (or polls every 50 ms without one)."""
        loop = asyncio.get_running_loop()
        try:
            fd = self.fileno()
        except OSError:
            fd = -1
        ready = asyncio.Event()
        if fd >= 0:
            loop.add_reader(fd, ready.set)
        try:
            while True:
                for msg in self.poll():
                    yield msg
                ready.clear()
                if fd >= 0:
                    # Level-triggered: a message that came after the poll
                    # above makes the reader fire again.
                    await ready.wait()
                else:
                    await asyncio.sleep(0.05)
        finally:
            if fd >= 0:
                loop.remove_reader(fd)

    # ---- notices ---------------------------------------------------------------

    def fetch_cache_dump(self, handle: int) -> str:
        """Another client's Gyre cache, fetched page by page over the bus
        and rendered by the library (see tarn.fetch_cache_dump)."""
        return fetch_cache_dump(handle)


def _bind(sap: Union[int, str], name: str) -> tuple[int, int]:
    label = name.encode()
    if sap == AUTO:
        for s in range(FIRST_SAP, LAST_SAP + 1):
            h = N.host.bus_bind(0, s, None, label)
            if h != HANDLE_NONE:
                return h, s
            if ctypes.get_errno() not in (0, errno.EADDRINUSE):
                break
        raise OSError(errno.EADDRINUSE,
                      f"no free bus access point from {FIRST_SAP} to {LAST_SAP}")
    h = N.host.bus_bind(0, int(sap), None, label)
    if h == HANDLE_NONE:
        err = ctypes.get_errno() or errno.EINVAL
        raise OSError(err, f"cannot bind bus access point {sap}: "
                           f"{os.strerror(err)}")
    return h, int(sap)


def fetch_cache_dump(handle: int) -> str:
    """The Gyre cache of the client holding bus ``handle`` (a handle bound
    at an access point, such as a Client's or the one ``tarnctl watch``
    prints), fetched over the bus and rendered by the library's requester.
    Raises LookupError when the handle serves no access point and TarnError
    when the dump fails."""
    sap = N.host.tarnhost_bus_handle_sap(handle)
    if sap < 0:
        raise LookupError(f"bus handle {handle} serves no access point")
    requester = N.host.bus_bind(4, -1, None, b"tarn python dump")
    if requester == HANDLE_NONE:
        err = ctypes.get_errno() or errno.EIO
        raise OSError(err, "cannot bind a bus handle for the dump")
    try:
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
    finally:
        N.host.bus_unbind(requester)
    if rc != 0:
        raise failure(f"the cache dump from handle {handle} failed ({rc})")
    return text
