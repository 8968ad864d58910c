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
from typing import TYPE_CHECKING, Iterator, Optional, Union

from . import _native as N
from . import _structs as S
from . import _walks
from .vlans import from_bits

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
        from .client import gyre_cache_enabled
        return gyre_cache_enabled()

    # ---- owners -----------------------------------------------------------------

    def ftag_topology(self, ftag: int) -> Optional[int]:
        """The topology that owns an ftag (0..1023), or None."""
        _check_range(ftag, 1023, "ftag")
        t = _tpg(N.tarn.gyre_get_ftag_l2_tpg(ftag))
        if t is None:
            self._miss(f"topology of ftag {ftag}")
        return t

    def vlan_topology(self, vlan: int) -> Optional[int]:
        """The topology that owns a VLAN (0..4095), or None."""
        _check_range(vlan, 4095, "VLAN")
        t = _tpg(N.tarn.gyre_get_vlan_l2_tpg(vlan))
        if t is None:
            self._miss(f"topology of VLAN {vlan}")
        return t

    # ---- ftags of a topology or a VLAN ----------------------------------------

    def _ftag_out(self, what: str, fn, *args) -> Optional[int]:
        out = ctypes.c_uint16(0)
        if fn(*args, ctypes.byref(out)) != 1:
            self._miss(what)
            return None
        return out.value

    def topology_ftag(self, topology: int, graph: int) -> Optional[int]:
        """The topology's ftag for a graph, or None."""
        return self._ftag_out(f"ftag of topology {topology} graph {graph}",
                              N.tarn.gyre_get_l2_tpg_ftag, topology, graph)

    def unicast_ftag(self, topology: int) -> Optional[int]:
        """The topology's unicast ftag, or None."""
        return self._ftag_out(f"unicast ftag of topology {topology}",
                              N.tarn.gyre_get_l2_tpg_unicast_ftag, topology)

    def vlan_ftag(self, vlan: int, graph: int) -> Optional[int]:
        """The ftag of a VLAN's topology for a graph, or None."""
        _check_range(vlan, 4095, "VLAN")
        return self._ftag_out(f"ftag of VLAN {vlan} graph {graph}",
                              N.tarn.gyre_get_vlan_ftag, vlan, graph)

    def vlan_unicast_ftag(self, vlan: int) -> Optional[int]:
        """The unicast ftag of a VLAN's topology, or None."""
        _check_range(vlan, 4095, "VLAN")
        return self._ftag_out(f"unicast ftag of VLAN {vlan}",
                              N.tarn.gyre_get_unicast_ftag_by_vlan, vlan)

    # ---- VLAN sets -------------------------------------------------------------

    def _vlans(self, what: str, fn, *args) -> Optional[set[int]]:
        bmp = S.VlanBitmap()
        if fn(*args, ctypes.byref(bmp)) != 1:
            self._miss(what)
            return None
        return from_bits(bmp.bits, S.VLAN_BMP_BYTES)

    def ftag_vlans(self, ftag: int) -> Optional[set[int]]:
        """The VLANs that ride on an ftag, or None for an unowned ftag."""
        _check_range(ftag, 1023, "ftag")
        return self._vlans(f"VLANs of ftag {ftag}", N.tarn.gyre_get_ftag_vlans,
                           ftag)

    def topology_vlans(self, topology: Union[int, str],
                       configured: bool = False) -> Optional[set[int]]:
        """A topology's active (or configured) VLANs, by id or name; None
        when the topology has no such record.  With the cache on the cache
        holds one set per topology, so both questions get the active set."""
        name = str(topology).encode()
        fn = (N.tarn.gyre_get_l2_tpg_cfg_vlans_by_name if configured
              else N.tarn.gyre_get_l2_tpg_act_vlans_by_name)
        return self._vlans(f"VLANs of topology {topology}", fn, name)

    def interface_vlans(self, ifindex: Optional[int] = None, *,
                        iod: Optional[int] = None,
                        configured: bool = False) -> Optional[set[int]]:
        """An interface's active (or configured) VLANs, by ifindex or IOD; a
        port-channel member answers its port-channel's.  An interface with
        no VLAN record has the empty set; None when the interface is not
        known."""
        if (ifindex is None) == (iod is None):
            raise TypeError("give either an ifindex or iod=")
        if iod is not None:
            fn = (N.tarn.gyre_get_if_cfg_vlans_iod if configured
                  else N.tarn.gyre_get_if_act_vlans_iod)
            return self._vlans(f"VLANs of IOD {iod}", fn, iod)
        fn = (N.tarn.gyre_get_if_cfg_vlans if configured
              else N.tarn.gyre_get_if_act_vlans)
        return self._vlans(f"VLANs of interface {ifindex}", fn, ifindex)

    # ---- topologies ------------------------------------------------------------

    def topologies(self) -> Iterator[Topology]:
        """Every layer-2 topology.  A walk over the Tarn database."""
        info = S.TableInfo()

        def answer(t: int, what: str) -> Optional[Topology]:
            if t in (NONE, 0):
                self._miss(what)
                return None
            return Topology(t, N.text(info.name))

        return _walks.walk(
            _walks.TARN_DB,
            lambda: answer(N.tarn.gyre_get_first_l2_tpg(ctypes.byref(info)),
                           "topology walk"),
            lambda _: answer(N.tarn.gyre_get_next_l2_tpg(ctypes.byref(info)),
                             "topology walk"))

    def interface_topologies(self, ifindex: int) -> Iterator[Topology]:
        """The topologies an interface carries, with the names it knows
        them by.  A walk over the Tarn database."""
        info = S.TableInfo()

        def answer(first: int) -> Optional[Topology]:
            t = N.tarn.gyre_get_next_if_table_info(ifindex, first,
                                                   ctypes.byref(info))
            if t in (NONE, 0):
                self._miss(f"topologies of interface {ifindex}")
                return None
            return Topology(t, N.text(info.name))

        return _walks.walk(_walks.TARN_DB, lambda: answer(1),
                           lambda _: answer(0))

    def interface_topology(self, ifindex: int, name: str) -> Optional[Topology]:
        """The topology an interface knows by ``name``, or None."""
        info = S.TableInfo()
        if N.tarn.gyre_get_if_l2_tpg_info(ifindex, name.encode(),
                                          ctypes.byref(info)) != 1:
            self._miss(f"topology {name!r} of interface {ifindex}")
            return None
        return Topology(info.tpg_id & _TPG_MASK, N.text(info.name))

    @staticmethod
    def topology_id(name: str) -> Optional[int]:
        """The topology id of a decimal name, or None."""
        return _tpg(N.tarn.gyre_l2_tpg_name2id(name.encode()))

    # ---- ftag walks -------------------------------------------------------------

    def ftags(self, flags: Union[FtagFlags, int] = FtagFlags(0),
              topology: Optional[int] = None) -> Iterator[int]:
        """The ftags that carry every bit of ``flags``, in any topology or in
        one.  A walk over the Gyre database: finish it before the next."""
        tpg = NONE if topology is None else topology
        flt = int(flags)
        out = ctypes.c_uint16(0)

        def step(first: bool) -> Optional[int]:
            fn = (N.tarn.gyre_get_first_ftag_by_filter if first
                  else N.tarn.gyre_get_next_ftag_by_filter)
            if fn(tpg, flt, ctypes.byref(out)) != 1:
                self._miss("ftag walk")
                return None
            return out.value

        return _walks.walk(_walks.GYRE_DB, lambda: step(True),
                           lambda _: step(False))

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
        and flags.  A walk over the Gyre database."""
        info = S.FtagInfo()

        def step(first: bool) -> Optional[Ftag]:
            info.tpg_id = topology
            fn = (N.tarn.gyre_get_l2_tpg_first_ftag if first
                  else N.tarn.gyre_get_l2_tpg_next_ftag)
            if fn(topology, ctypes.byref(info)) != 1:
                self._miss(f"ftags of topology {topology}")
                return None
            return Ftag(info.ftag, info.graph_id, FtagFlags(info.flags & 0xFF),
                        topology)

        return _walks.walk(_walks.GYRE_DB, lambda: step(True),
                           lambda _: step(False))

    # ---- notices to the service ------------------------------------------------

    def converge(self) -> None:
        """Tell the Gyre service that this client's ftags converged."""
        if N.tarn.gyre_ftag_converge() != 1:
            from .errors import failure
            raise failure("the ftag converge notice was not sent")

    def stale(self, topology: int) -> None:
        """Tell the Gyre service that a topology's ftags went stale."""
        if N.tarn.gyre_ftag_stale(topology) != 1:
            from .errors import failure
            raise failure(f"the stale notice for topology {topology} was not sent")


def _check_range(value: int, limit: int, what: str) -> None:
    if not 0 <= value <= limit:
        raise ValueError(f"{what} {value} is out of range 0..{limit}")
