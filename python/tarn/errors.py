"""Exceptions, and the rendered log lines that explain them.

The library reports every failure once through its log catalogue and answers
0; an absent record is an ordinary answer and is never reported.  The
package therefore answers ``None`` for "not found" and raises only when the
library reported a failure, with the rendered line attached.  The host keeps
rendered lines in memory while capture is on (turned on when the libraries
are loaded); this module takes the lines after each failing call.  A report
that the library's rate limiter held back (the same failure again within its
window) renders no line, but the host counts it: such a failure still
raises, with ``log_line`` None.
"""

from __future__ import annotations

import re
from typing import Optional, Sequence

from . import _native as N

_SYSLOG = 0  # TARNHOST_CH_SYSLOG
_CODE = re.compile(r"<<%TARN-\d-([A-Z0-9_]+)>>")
HELD = ("its report was held back by the rate limiter (the same failure "
        "within its window)")

# The host's count of held-back reports when it was last looked at.
_held_seen = [-1]


def take_log_lines() -> list[str]:
    """The lines the library logged since the last call, oldest first."""
    count = N.host.tarnhost_capture_count(_SYSLOG)
    if count == 0:
        return []
    lines = [N.text(N.host.tarnhost_capture_line(_SYSLOG, i))
             for i in range(count)]
    N.host.tarnhost_capture_clear()
    return lines


def pending() -> bool:
    """True when the library logged something not taken yet."""
    count: int = N.host.tarnhost_capture_count(_SYSLOG)
    return count != 0


def held() -> bool:
    """True when the rate limiter held a report back since the last look
    (a failure that rendered no line)."""
    now: int = N.host.tarnhost_log_held()
    if now == _held_seen[0]:
        return False
    first = _held_seen[0] < 0
    _held_seen[0] = now
    return not first


def forget_held() -> None:
    """Call after work whose held reports are not a query's (dispatching)."""
    _held_seen[0] = N.host.tarnhost_log_held()


class TarnError(Exception):
    """A failure that the library reported.

    ``log_line`` is the last line the library logged for it (``None`` when it
    logged nothing, for instance when its rate limiter held a repeat back),
    ``log_lines`` all of them, and ``code`` the catalogue name of the last
    one (``"TARN_KVS_READ"``, ...).
    """

    def __init__(self, what: str, log_lines: Sequence[str] = ()) -> None:
        self.what = what
        self.log_lines = list(log_lines)
        self.log_line: Optional[str] = self.log_lines[-1] if self.log_lines else None
        match = _CODE.search(self.log_line or "")
        self.code: Optional[str] = match.group(1) if match else None
        super().__init__(f"{what}: {self.log_line}" if self.log_line else what)


class NotInitialisedError(TarnError):
    """The library is not initialised (closed, or never opened)."""


class WrongDeviceError(NotInitialisedError):
    """The library was opened on another device than the one in force."""


class ClosedError(OSError):
    """A client (or another handle) used after close()."""


class DeviceNotUpError(TarnError):
    """The simulated device has no running configuration yet."""


class CellError(TarnError):
    """This process's cell is not one the library serves (only cell 1)."""


class DeviceError(Exception):
    """tarnctl refused or failed to load or change the device.

    ``message`` is what tarnctl printed on standard error, ``status`` its
    exit status.
    """

    def __init__(self, message: str, status: int) -> None:
        self.message = message
        self.status = status
        super().__init__(message)


_BY_CODE: dict[str, type[TarnError]] = {"TARN_LIBINIT": NotInitialisedError,
            "TARN_NOALLOC": NotInitialisedError,
            "TARN_CELL": CellError}


def failure(what: str, default: Optional[type[TarnError]] = None) -> TarnError:
    """The exception for a failed call, carrying what the library logged;
    its class follows the catalogue name of the last line, else
    ``default`` (TarnError).  With no line (a held-back report) the text
    says so."""
    lines = take_log_lines()
    if not lines:
        what = f"{what}: {HELD}"
    err = TarnError(what, lines)
    cls = _BY_CODE.get(err.code or "") or default
    return cls(what, lines) if cls else err


def check(what: str) -> None:
    """Raise when the call just made logged a failure; else return."""
    if pending():
        raise failure(what)
