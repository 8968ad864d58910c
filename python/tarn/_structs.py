"""ctypes mirrors of the public C structures (sizes checked on import)."""

from __future__ import annotations

import ctypes
from ctypes import c_char, c_uint8, c_uint16, c_uint32, c_uint64

NAME_SIZE = 33
VLAN_BMP_BYTES = 512
FTAG_BMP_BYTES = 128


class Client(ctypes.Structure):
    _fields_ = [("initialized", c_uint32), ("bus_handle", c_uint32),
                ("kvs", c_char * 256), ("cache_enabled", c_uint32),
                ("cell_type", c_uint32)]


class TarnCache(ctypes.Structure):
    _fields_ = [("tracked_mask", c_uint32), ("as_format", c_uint32)]


class ContextInfo(ctypes.Structure):
    _fields_ = [("state", c_uint32), ("reason", c_uint32),
                ("name", c_char * NAME_SIZE)]


class TableInfo(ctypes.Structure):
    _fields_ = [("context_id", c_uint32), ("w1", c_uint32), ("w2", c_uint32),
                ("w3", c_uint32), ("name", c_char * NAME_SIZE),
                ("tpg_id", c_uint32)]


class IfContextInfo(ctypes.Structure):
    _fields_ = [("context_id", c_uint32), ("context_name", c_char * NAME_SIZE)]


class RtLimits(ctypes.Structure):
    _fields_ = [("table_id", c_uint32), ("limit1", c_uint32),
                ("limit3", c_uint32), ("setting1", c_uint8),
                ("setting2", c_uint8)]


class SooInfo(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("word", c_uint32), ("soo", c_uint64)]


class VpnIdInfo(ctypes.Structure):
    _fields_ = [("w0", c_uint32), ("w1", c_uint32), ("w2", c_uint32)]


class AsFormat(ctypes.Structure):
    _fields_ = [("format", c_uint32)]


class VlanBitmap(ctypes.Structure):
    _fields_ = [("len", c_uint32), ("bits", c_uint8 * VLAN_BMP_BYTES)]


class FtagBitmap(ctypes.Structure):
    _fields_ = [("len", c_uint32), ("bits", c_uint8 * FTAG_BMP_BYTES)]


class FtagInfo(ctypes.Structure):
    _fields_ = [("tpg_id", c_uint32), ("graph_id", c_uint16),
                ("ftag", c_uint16), ("flags", c_uint32)]


class GyreCacheAttr(ctypes.Structure):
    _fields_ = [("bus_handle", c_uint32)]


_SIZES = {ContextInfo: 44, TableInfo: 56, IfContextInfo: 40, RtLimits: 16,
          SooInfo: 12, VpnIdInfo: 12, AsFormat: 4, VlanBitmap: 516,
          FtagBitmap: 132, FtagInfo: 12, Client: 272}
for _type, _size in _SIZES.items():
    if ctypes.sizeof(_type) != _size:
        raise ImportError(f"tarn: {_type.__name__} is {ctypes.sizeof(_type)} "
                          f"bytes, the library's is {_size}")
