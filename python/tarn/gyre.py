"""The Gyre client: fabric topologies, their forwarding tags (ftags) and the
VLAN sets that map onto them.

Every question that the client cache can answer is answered from it while
the Gyre cache is on (Client.enable_cache), else from the database; the
answers are the same either way.  The ftag walks always read the database.
"""

from __future__ import annotations

import ctypes
import enum
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Callable, Iterator, Optional, Union

from . import _native as N
from . import _structs as S
from . import errors as E
from ._core import LOCK, STATE, bounded, name_bytes, u32
from .vlans import set_from_bitmap

if TYPE_CHECKING:
    from .library import Library

NONE = 0xFFFFFFFF
_TPG_MASK = 0x3FFFFFFF


class FtagFlags(enum.IntFlag):
    """An ftag's flag bits; a filter passes an ftag that has all its bits."""
    MULTICAST = 0x02
    ACTIVE = 0x04
    UNICAST = 0x10


@dataclass(frozen=True)
class Topology:
    """A layer-2 fabric topology: its id and its name (the decimal id, or
    the name an interface knows it by)."""
    id: int
    name: str


@dataclass(frozen=True)
class Ftag:
    """One ftag of a topology."""
    ftag: int
    graph: int
    flags: FtagFlags
    topology: int


def _tpg(value: int) -> Optional[int]:
    return None if value in (NONE, 0) else value


class Gyre:
    """The Gyre side of the open library (``Library.gyre``)."""

    def __init__(self, library: "Library") -> None:
        self._lib = library

    def _miss(self, what: str) -> None:
        self._lib._miss(what)

    @property
    def cache_enabled(self) -> bool:
        """True while the Gyre client cache answers the queries."""
        self._lib.require_open()
        return STATE.gyre_cache_on

    # ---- owners -----------------------------------------------------------------

    def ftag_topology(self, ftag: int) -> Optional[int]:
        """The topology that owns an ftag (0..1023), or None."""
        lib = self._lib
        if lib._token is not STATE.token:
            lib._revalidate()
        key = bounded(ftag, "ftag", 1023)
        with LOCK:
            t = _tpg(N.tarn.gyre_get_ftag_l2_tpg(key))
            if t is None:
                lib._miss(f"topology of ftag {key}")
        return t

    def vlan_topology(self, vlan: int) -> Optional[int]:
        """The topology that owns a VLAN (0..4095), or None."""
        lib = self._lib
        if lib._token is not STATE.token:
            lib._revalidate()
        key = bounded(vlan, "vlan", 4095)
        with LOCK:
            t = _tpg(N.tarn.gyre_get_vlan_l2_tpg(key))
            if t is None:
                lib._miss(f"topology of VLAN {key}")
        return t

    # ---- ftags of a topology or a VLAN ----------------------------------------

    def _ftag_out(self, what: str, fn: Callable[..., int], *args: int
                  ) -> Optional[int]:
        lib = self._lib
        if lib._token is not STATE.token:
            lib._revalidate()
        with LOCK:
            out = _FTAG_OUT
            if fn(*args, out) != 1:
                self._miss(what)
                return None
            return out.value

    def topology_ftag(self, topology: int, graph: int) -> Optional[int]:
        """The topology's ftag for a graph, or None."""
        return self._ftag_out(f"ftag of topology {topology} graph {graph}",
                              N.tarn.gyre_get_l2_tpg_ftag,
                              u32(topology, "topology"),
                              bounded(graph, "graph", 0xFFFF))

    def unicast_ftag(self, topology: int) -> Optional[int]:
        """The topology's unicast ftag, or None."""
        return self._ftag_out(f"unicast ftag of topology {topology}",
                              N.tarn.gyre_get_l2_tpg_unicast_ftag,
                              u32(topology, "topology"))

    def vlan_ftag(self, vlan: int, graph: int) -> Optional[int]:
        """The ftag of a VLAN's topology for a graph, or None."""
        return self._ftag_out(f"ftag of VLAN {vlan} graph {graph}",
                              N.tarn.gyre_get_vlan_ftag,
                              bounded(vlan, "vlan", 4095),
                              bounded(graph, "graph", 0xFFFF))

    def vlan_unicast_ftag(self, vlan: int) -> Optional[int]:
        """The unicast ftag of a VLAN's topology, or None."""
        lib = self._lib
        if lib._token is not STATE.token:
            lib._revalidate()
        key = bounded(vlan, "vlan", 4095)
        with LOCK:
            out = _FTAG_OUT
            if N.tarn.gyre_get_unicast_ftag_by_vlan(key, out) != 1:
                lib._miss(f"unicast ftag of VLAN {key}")
                return None
            return out.value

    # ---- VLAN sets -------------------------------------------------------------

    def _vlans(self, what: str, fn: Callable[..., int], arg: Any
               ) -> Optional[frozenset[int]]:
        lib = self._lib
        if lib._token is not STATE.token:
            lib._revalidate()
        bmp = _VLAN_BUFFER
        with LOCK:
            if fn(arg, bmp) != 1:
                self._miss(what)
                return None
            raw = bytes(bmp.bits)
        return set_from_bitmap(raw)

    def ftag_vlans(self, ftag: int) -> Optional[frozenset[int]]:
        """The VLANs that ride on an ftag, or None for an unowned ftag."""
        key = bounded(ftag, "ftag", 1023)
        return self._vlans(f"VLANs of ftag {key}", N.tarn.gyre_get_ftag_vlans,
                           key)

    def topology_vlans(self, topology: Union[int, str],
                       configured: bool = False) -> Optional[frozenset[int]]:
        """A topology's active (or configured) VLANs, by id or name; None
        when the topology has no such record.  With the cache on the cache
        holds one set per topology, so both questions get the active set."""
        if type(topology) is int and 0 <= topology <= 0xFFFFFFFF:
            name = b"%d" % topology
        elif isinstance(topology, str):
            name = name_bytes(topology, "topology")
        else:
            name = b"%d" % u32(topology, "topology")
        fn = (N.tarn.gyre_get_l2_tpg_cfg_vlans_by_name if configured
              else N.tarn.gyre_get_l2_tpg_act_vlans_by_name)
        return self._vlans(f"VLANs of topology {topology}", fn, name)

    def interface_vlans(self, ifindex: Optional[int] = None, *,
                        iod: Optional[int] = None,
                        configured: bool = False) -> Optional[frozenset[int]]:
        """An interface's active (or configured) VLANs, by ifindex or IOD; a
        port-channel member answers its port-channel's.  An interface with
        no VLAN record has the empty set; None when the interface is not
        known."""
        if (ifindex is None) == (iod is None):
            raise TypeError("give either an ifindex or iod=")
        if iod is not None:
            fn = (N.tarn.gyre_get_if_cfg_vlans_iod if configured
                  else N.tarn.gyre_get_if_act_vlans_iod)
            return self._vlans(f"VLANs of IOD {iod}", fn, u32(iod, "iod"))
        fn = (N.tarn.gyre_get_if_cfg_vlans if configured
              else N.tarn.gyre_get_if_act_vlans)
        return self._vlans(f"VLANs of interface {ifindex}", fn,
                           u32(ifindex, "ifindex"))

    # ---- topologies ------------------------------------------------------------

    def topologies(self) -> Iterator[Topology]:
        """Every layer-2 topology.  The walk runs to its end under the
        library's lock."""
        self._lib.require_open()
        info = S.TableInfo()
        out: list[Topology] = []
        with LOCK:
            t = N.tarn.gyre_get_first_l2_tpg(ctypes.byref(info))
            while t not in (NONE, 0):
                out.append(Topology(t, N.text(info.name)))
                t = N.tarn.gyre_get_next_l2_tpg(ctypes.byref(info))
            self._miss("topology walk")
        return iter(out)

    def interface_topologies(self, ifindex: int) -> Iterator[Topology]:
        """The topologies an interface carries, with the names it knows
        them by.  The walk runs to its end under the library's lock."""
        self._lib.require_open()
        ix = u32(ifindex, "ifindex")
        info = S.TableInfo()
        out: list[Topology] = []
        with LOCK:
            first = 1
            while True:
                t = N.tarn.gyre_get_next_if_table_info(ix, first,
                                                       ctypes.byref(info))
                if t in (NONE, 0):
                    self._miss(f"topologies of interface {ix}")
                    break
                out.append(Topology(t, N.text(info.name)))
                first = 0
        return iter(out)

    def interface_topology(self, ifindex: int, name: str) -> Optional[Topology]:
        """The topology an interface knows by ``name``, or None."""
        self._lib.require_open()
        ix = u32(ifindex, "ifindex")
        key = name_bytes(name, "name")
        info = S.TableInfo()
        with LOCK:
            if N.tarn.gyre_get_if_l2_tpg_info(ix, key, ctypes.byref(info)) != 1:
                self._miss(f"topology {name!r} of interface {ix}")
                return None
        return Topology(info.tpg_id & _TPG_MASK, N.text(info.name))

    def topology_id(self, name: str) -> Optional[int]:
        """The topology id of a decimal name, or None."""
        key = name_bytes(name, "name")
        with LOCK:
            return _tpg(N.tarn.gyre_l2_tpg_name2id(key))

    # ---- ftag walks -------------------------------------------------------------

    def ftags(self, flags: Union[FtagFlags, int] = FtagFlags(0),
              topology: Optional[int] = None) -> Iterator[int]:
        """The ftags that carry every bit of ``flags``, in any topology or in
        one.  The walk runs to its end under the library's lock."""
        self._lib.require_open()
        tpg = NONE if topology is None else u32(topology, "topology")
        flt = u32(int(flags) if isinstance(flags, FtagFlags) else flags, "flags")
        out = ctypes.c_uint16(0)
        found: list[int] = []
        with LOCK:
            fn = N.tarn.gyre_get_first_ftag_by_filter
            while fn(tpg, flt, ctypes.byref(out)) == 1:
                found.append(out.value)
                fn = N.tarn.gyre_get_next_ftag_by_filter
            self._miss("ftag walk")
        return iter(found)

    def active_ftags(self, topology: Optional[int] = None) -> Iterator[int]:
        """The active ftags (of one topology when given)."""
        return self.ftags(FtagFlags.ACTIVE, topology)

    def multicast_ftags(self, topology: Optional[int] = None,
                        active: bool = False) -> Iterator[int]:
        """The multicast ftags, only the active ones when ``active``."""
        flags = FtagFlags.MULTICAST | (FtagFlags.ACTIVE if active else 0)
        return self.ftags(flags, topology)

    def unicast_ftags(self, topology: Optional[int] = None) -> Iterator[int]:
        """The unicast ftags."""
        return self.ftags(FtagFlags.UNICAST, topology)

    def topology_ftags(self, topology: int) -> Iterator[Ftag]:
        """Every ftag of one topology, whatever its flags, with its graph
        and flags.  The walk runs to its end under the library's lock."""
        self._lib.require_open()
        tpg = u32(topology, "topology")
        info = S.FtagInfo()
        out: list[Ftag] = []
        with LOCK:
            info.tpg_id = tpg
            fn = N.tarn.gyre_get_l2_tpg_first_ftag
            while fn(tpg, ctypes.byref(info)) == 1:
                out.append(Ftag(info.ftag, info.graph_id,
                                FtagFlags(info.flags & 0xFF), tpg))
                info.tpg_id = tpg
                fn = N.tarn.gyre_get_l2_tpg_next_ftag
            self._miss(f"ftags of topology {tpg}")
        return iter(out)

    # ---- notices to the service ------------------------------------------------

    def converge(self) -> None:
        """Tell the Gyre service that this client's ftags converged."""
        self._lib.require_open()
        with LOCK:
            if N.tarn.gyre_ftag_converge() != 1:
                raise E.failure("the ftag converge notice was not sent")

    def stale(self, topology: int) -> None:
        """Tell the Gyre service that a topology's ftags went stale."""
        self._lib.require_open()
        tpg = u32(topology, "topology")
        with LOCK:
            if N.tarn.gyre_ftag_stale(tpg) != 1:
                raise E.failure(
                    f"the stale notice for topology {tpg} was not sent")


_VLAN_BUFFER = S.VlanBitmap()
_FTAG_OUT = ctypes.c_uint16(0)
