"""The process-wide state that every object of the package shares.

libtarn keeps one state per process: initialised or not, one registered bus
handle, one cache mode.  Python code opens libraries and clients as objects
of its own, nested, in helpers, in threads, across fork().  This module is
the one owner of the C state; the other modules import it and never each
other in a circle:

- ``STATE.opens`` counts open Library handles: the C library is initialised
  when the first opens and closed when the last closes, so a nested
  ``tarn.open()`` is harmless.  The state remembers the root it was opened
  on; a Library is tied to that root.
- Registered clients are counted the same way: closing one client never
  withdraws another's registration (the library holds one bus handle, so
  the registration is handed to a remaining client), and cache mode is on
  while any client asked for it.
- ``LOCK`` serialises every call into the library: a call from another
  thread waits its turn, and a walk runs to its end under it.
- ``STATE.token`` changes whenever an open Library may no longer be what it
  was (another root put in force, fork(), a forced close): a Library checks
  its token (one comparison) before every query and looks closer only when
  it changed.
"""

from __future__ import annotations

import os
import threading
import weakref
from typing import TYPE_CHECKING, Optional

from . import _native as N
from . import errors as E

if TYPE_CHECKING:
    from .client import Client
    from .library import Library

U32_MAX = 0xFFFFFFFF
ROOT_ENV = "TARNHOST_ROOT"

LOCK = threading.RLock()


class Token:
    """An identity; a new one invalidates every Library's cached checks."""
    __slots__ = ()


class ProcessState:
    def __init__(self) -> None:
        self.opens = 0
        self.root: Optional[str] = None
        self.pid = os.getpid()
        self.token = Token()
        self.libraries: "weakref.WeakSet[Library]" = weakref.WeakSet()
        self.clients: list["Client"] = []   # registered, oldest first
        self.as_format_owners: set[int] = set()   # client ids
        self.gyre_owners: set[int] = set()
        self.gyre_cache_on = False
        self.forked = False

    def invalidate(self) -> None:
        self.token = Token()


STATE = ProcessState()


def current_root() -> str:
    """The host root in force in this process (``tarnhost_root()``)."""
    return N.text(N.host.tarnhost_root())


# ---- arguments ---------------------------------------------------------------

def u32(value: object, name: str) -> int:
    """``value`` as a 32-bit unsigned argument; TypeError for what is not
    an integer (floats and bools included), ValueError out of range."""
    if type(value) is int and 0 <= value <= U32_MAX:
        return value
    return _int_slow(value, name, U32_MAX)


def bounded(value: object, name: str, limit: int) -> int:
    """``value`` as an integer argument in 0..limit."""
    if type(value) is int and 0 <= value <= limit:
        return value
    return _int_slow(value, name, limit)


def _int_slow(value: object, name: str, limit: int) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if not 0 <= value <= limit:
        raise ValueError(f"{name} {value} is out of range 0..{limit}")
    return int(value)


def name_bytes(value: object, name: str) -> bytes:
    """A text argument as the library's NUL-terminated UTF-8."""
    if type(value) is str and "\0" not in value:
        return value.encode()
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    raise ValueError(f"{name} {value!r} holds a NUL character")


def optional_name(value: object, name: str) -> Optional[bytes]:
    return None if value is None else name_bytes(value, name)


# ---- the C library's state -------------------------------------------------------

def after_fork_in_child() -> None:
    """In a forked child: the host has forgotten the parent's database and
    bus handles, another thread's hold on the lock is meaningless, and the
    parent's clients are the parent's.  Libraries reopen on their next
    query; clients raise."""
    # The forking thread took the lock before fork() (so that no other
    # thread of the parent held it half-way through a call) and is the one
    # thread of the child: it lets go here.
    LOCK.release()
    STATE.forked = True
    STATE.invalidate()
    for client in STATE.clients:
        client._orphan()
    STATE.clients.clear()
    STATE.as_format_owners.clear()
    STATE.gyre_owners.clear()
    STATE.gyre_cache_on = False


def _before_fork() -> None:
    LOCK.acquire()


def _after_fork_in_parent() -> None:
    LOCK.release()


os.register_at_fork(before=_before_fork, after_in_parent=_after_fork_in_parent,
                    after_in_child=after_fork_in_child)


def reopen_after_fork() -> None:
    """The first call in a forked child: start the C library afresh for
    this process, or raise an error that names fork and the fix."""
    STATE.forked = False
    STATE.pid = os.getpid()
    if STATE.opens == 0:
        return
    E.take_log_lines()
    # The child's copy of the parent's state points at handles the host
    # forgot: close it (nothing is released twice) and open again.
    N.tarn.gyre_api_close()
    N.tarn.tarn_api_close()
    E.take_log_lines()
    if N.tarn.tarn_api_init() != 1 or not N.tarn_clt or \
            N.tarn_clt.contents.initialized == 0:
        lines = E.take_log_lines()
        STATE.opens = 0
        for lib in list(STATE.libraries):
            lib._mark_closed()
        raise E.NotInitialisedError(
            "the library was opened before fork() and could not be opened "
            "again in the child; open it in the child (tarn.open() after "
            "the fork, or the 'spawn' start method of multiprocessing)",
            lines)


def init_c(root: str) -> None:
    """tarn_api_init for the first open Library."""
    E.take_log_lines()  # whatever came before is not this call's
    E.forget_held()
    if N.tarn.tarn_api_init() != 1:
        raise E.failure("tarn_api_init failed")
    if not N.tarn_clt or N.tarn_clt.contents.initialized == 0:
        raise E.DeviceNotUpError(
            f"the device in {root} is not up (no running "
            f"configuration); load one with Device.load() or tarnctl load",
            E.take_log_lines())
    E.check("tarn_api_init")


def close_c() -> None:
    """The last Library closed: clients, the Gyre side, the library."""
    for client in list(STATE.clients):
        client._close_locked()
    N.tarn.gyre_api_close()
    N.tarn.tarn_api_close()
    STATE.gyre_cache_on = False
    STATE.as_format_owners.clear()
    STATE.gyre_owners.clear()
    STATE.root = None
    STATE.invalidate()


def close_root(root: str) -> None:
    """Close every Library opened on ``root`` (its device goes away)."""
    with LOCK:
        for lib in list(STATE.libraries):
            if lib.root == root:
                lib.close()
        STATE.invalidate()


def root_changed() -> None:
    """Another root was put in force: every Library checks its root again."""
    STATE.invalidate()
