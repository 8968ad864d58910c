"""tarn: Python bindings of libtarn, the Tarn and Gyre client library, and
of its simulated device (libtarnhost, tarnctl).

    import tarn
    with tarn.Device.temporary("examples/device.json"):
        with tarn.open() as lib:
            for ctx in lib.contexts():
                print(ctx.id, ctx.name, ctx.state.name)

The libraries are found through ``TARN_LIBDIR`` or the dynamic loader;
tarnctl through ``TARNCTL``, beside the libraries, or on ``PATH``.  See
docs/python.md.
"""

from .errors import (CellError, DeviceError, DeviceNotUpError,
                     NotInitialisedError, TarnError, take_log_lines)
from .device import Device, TemporaryDevice, current_root
from .library import (AddressFamily, Context, ContextState, InterfaceContext,
                      Library, RouteLimits, SiteOfOrigin, Table, VpnId, open)
from .gyre import Ftag, FtagFlags, Gyre, Topology
from .client import Client, Message, fetch_cache_dump
from .service import Publisher
from ._walks import WalkInterrupted
from . import vlans

__version__ = "0.1.0"

__all__ = [
    "AddressFamily", "CellError", "Client", "Context", "ContextState",
    "Device", "DeviceError", "DeviceNotUpError", "Ftag", "FtagFlags", "Gyre",
    "InterfaceContext", "Library", "Message", "NotInitialisedError",
    "Publisher", "RouteLimits", "SiteOfOrigin", "Table", "TarnError",
    "TemporaryDevice", "Topology", "VpnId", "WalkInterrupted",
    "current_root", "fetch_cache_dump", "open", "take_log_lines", "vlans",
]
