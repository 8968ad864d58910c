"""The service side, for tests that play the Tarn or Gyre service: write a
record into the device's databases and publish the notification that
announces it, the way the services do.

For whole change files (topologies, VLAN sets, ftags) use Device.apply(),
which plays them through tarnctl.
"""

from __future__ import annotations

import ctypes
import errno
import os
import struct
from . import _native as N
from . import _structs as S
from .device import RUNNING_URI

OPC_ATTR_CHANGE = 51226
OPC_PROTOCOL_CONFIG_CHANGE = 51222
OPC_GYRE_TPG_CREATE = 51208
OPC_GYRE_TPG_DELETE = 51210
OPC_GYRE_TPG_VLANS = 51214
OPC_GYRE_FTAG_UPDATE = 51215

ATTR_AS_FORMAT = 1
ATTR_DELETE_TOPOLOGY_FTAGS = 2
ATTR_DELETE_CACHE = 3

TARN_DB = RUNNING_URI + "/tarn_global_kvs"
_KIND_AS_FORMAT = 10
_KEY_SIZE = 48


def attr_change(kind: int, body: bytes = b"") -> bytes:
    """An attribute-change payload: the kind at bytes 2-3, the total length
    at 20-23, ``body`` from byte 24 (numbers in host byte order)."""
    size = 24 + len(body)
    head = bytearray(24)
    struct.pack_into("=H", head, 2, kind)
    struct.pack_into("=I", head, 20, size)
    return bytes(head) + body


class Publisher:
    """A publisher on the device's bus (a dynamic handle of its own)."""

    def __init__(self, name: str = "tarn python publisher") -> None:
        self.handle = N.host.bus_bind(0, -1, None, name.encode())
        if self.handle == 0xFFFFFFFF:
            err = ctypes.get_errno() or errno.EIO
            raise OSError(err, f"cannot bind a bus handle: {os.strerror(err)}")

    def __enter__(self) -> "Publisher":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def close(self) -> None:
        if self.handle != 0xFFFFFFFF:
            N.host.bus_unbind(self.handle)
            self.handle = 0xFFFFFFFF

    def publish(self, opcode: int, payload: bytes = b"") -> None:
        """Send a notification to every handle subscribed to ``opcode``."""
        buf = ctypes.create_string_buffer(payload, len(payload))
        err = N.host.tarnhost_bus_publish(self.handle, opcode, buf, len(payload))
        if err:
            raise OSError(err, f"publishing opcode {opcode}: {os.strerror(err)}")

    def set_as_format(self, fmt: int) -> None:
        """Store a new AS-number display format and announce it (attribute
        change of kind 1); caching clients read it back when they dispatch
        the notice."""
        rec = S.AsFormat(fmt)
        buf = ctypes.c_void_p()
        length = ctypes.c_uint32(0)
        rc = N.tarn.tarn_as_format_to_tlv(ctypes.byref(rec), ctypes.byref(buf),
                                          ctypes.byref(length), 0, None, 0)
        if rc != 0 or not buf:
            raise RuntimeError(f"cannot encode the AS format record (0x{rc:x})")
        try:
            value = ctypes.string_at(buf, length.value)
        finally:
            N.libc.free(buf)
        key = struct.pack(">I", _KIND_AS_FORMAT) + bytes(_KEY_SIZE - 4)
        st = N.host.tarnhost_kvs_put(TARN_DB.encode(), key, len(key), value,
                                     len(value))
        if st != 0:
            raise OSError(errno.EIO, f"writing the AS format failed (0x{st:08x})")
        self.publish(OPC_ATTR_CHANGE,
                     attr_change(ATTR_AS_FORMAT, struct.pack("=I", fmt)))

    def delete_caches(self) -> None:
        """Tell the caching clients to drop their Gyre caches (kind 3)."""
        self.publish(OPC_ATTR_CHANGE,
                     attr_change(ATTR_DELETE_CACHE, bytes(4)))

    def subscribers(self, opcode: int) -> list[int]:
        """The handles subscribed to ``opcode`` now."""
        n = N.host.tarnhost_bus_subscribers(opcode, None, 0)
        arr = (ctypes.c_uint32 * max(n, 1))()
        n = min(n, N.host.tarnhost_bus_subscribers(opcode, arr, n))
        return sorted(arr[:n])
