"""tarn: Python bindings of libtarn, the Tarn and Gyre client library, and
of its simulated device (libtarnhost, tarnctl).

    import tarn
    with tarn.Device.temporary("examples/device.json"):
        with tarn.open() as lib:
            for ctx in lib.contexts():
                print(ctx.id, ctx.name, ctx.state.name)

The libraries are loaded on first use (``import tarn`` and ``tarn.vlans``
work without them), found through ``TARN_LIBDIR`` or the dynamic loader;
tarnctl through ``TARNCTL``, beside the libraries, or on ``PATH``.  See
docs/python.md.
"""

from .errors import (CellError, ClosedError, DeviceError, DeviceNotUpError,
                     NotInitialisedError, TarnError, WrongDeviceError,
                     take_log_lines)
from ._core import current_root
from .device import Device, TemporaryDevice
from .library import (AddressFamily, Context, ContextState, InterfaceContext,
                      Library, RouteLimits, SiteOfOrigin, Table, VpnId)
from .library import open as open  # noqa: A004 - tarn.open(), not in __all__
from .gyre import Ftag, FtagFlags, Gyre, Topology
from .client import Client, Message, fetch_cache_dump
from .service import Publisher
from .events import Opcode
from . import events, vlans

__version__ = "0.1.0"

# ``open`` is left out: ``from tarn import *`` must not hide the built-in.
# Use ``tarn.open()``.
__all__ = [
    "AddressFamily", "CellError", "Client", "ClosedError", "Context",
    "ContextState", "Device", "DeviceError", "DeviceNotUpError", "Ftag",
    "FtagFlags", "Gyre", "InterfaceContext", "Library", "Message",
    "NotInitialisedError", "Opcode", "Publisher", "RouteLimits",
    "SiteOfOrigin", "Table", "TarnError", "TemporaryDevice", "Topology",
    "VpnId", "WrongDeviceError", "current_root", "events",
    "fetch_cache_dump", "take_log_lines", "vlans",
]
