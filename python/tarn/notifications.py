"""Notification payloads decoded by the one definition of their layouts
(<tarn/notification.hpp>, through libtarnhost's tarnhost_notification_json):
the same fields that ``tarnctl watch --json`` prints as ``decoded``."""

from __future__ import annotations

import ctypes
import json
from typing import Any, Optional

from . import _native as N

_PAYLOAD_NOTIFICATION = 0
_PAYLOAD_DUMP_PAGE = 1


def decode(opcode: int, payload: Optional[bytes]) -> dict[str, Any]:
    """The fields of a message of `opcode` with `payload` (None: no payload)."""
    return _decode(_PAYLOAD_NOTIFICATION, opcode, payload)


def decode_dump_page(payload: Optional[bytes]) -> dict[str, Any]:
    """The fields of a page of a cache dump (the reply to a dump request)."""
    return _decode(_PAYLOAD_DUMP_PAGE, 0, payload)


def _decode(what: int, opcode: int, payload: Optional[bytes]) -> dict[str, Any]:
    if not 0 <= opcode <= 0xFFFFFFFF:
        raise ValueError(f"opcode {opcode} is not a 32-bit number")
    data = None if payload is None else bytes(payload)
    length = 0 if data is None else len(data)
    needed = N.host.tarnhost_notification_json(what, opcode, data, length, None, 0)
    buf = ctypes.create_string_buffer(needed + 1)
    N.host.tarnhost_notification_json(what, opcode, data, length, buf, needed + 1)
    decoded: dict[str, Any] = json.loads(buf.raw[:needed].decode("utf-8"))
    return decoded
