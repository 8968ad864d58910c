"""Random devices, loaded one over the other into the same root: after every
load each answer of the bindings matches the description, on the database
path and on the cache path, and nothing of an earlier load survives."""

from __future__ import annotations

import random

import pytest

import tarn
from tarn import FtagFlags
from tarn.vlans import format_ranges

SEEDS = [11, 23, 37, 41, 59]


def random_description(rng: random.Random) -> dict:
    ctx_ids = rng.sample(range(1, 60), rng.randint(0, 7))
    table_ids = iter(rng.sample(range(1, 400), 40))
    contexts = []
    for cid in ctx_ids:
        ctx = {"id": cid, "name": f"c{cid}-{rng.randrange(1000)}",
               "state": rng.randint(0, 2), "reason": rng.randrange(5)}
        if rng.random() < 0.5:
            ctx["vpn_id"] = [rng.randrange(2**32) for _ in range(3)]
        tables = []
        for _ in range(rng.randint(0, 3)):
            tid = next(table_ids)
            t = {"id": tid, "af": rng.randint(0, 2), "name": f"t{tid}"}
            if rng.random() < 0.5:
                t["route_limits"] = [rng.randrange(2**32), rng.randrange(2**32),
                                     rng.randrange(2**32), rng.randrange(256),
                                     rng.randrange(256)]
            tables.append(t)
        ctx["tables"] = tables
        contexts.append(ctx)

    free_vlans = list(range(1, 4095))
    rng.shuffle(free_vlans)
    free_ftags = rng.sample(range(0, 1024), 40)
    topologies = []
    for tpg in rng.sample(range(1, 2000), rng.randint(0, 4)):
        topo = {"id": tpg}
        if rng.random() < 0.8:
            vl = {free_vlans.pop() for _ in range(rng.randint(0, 30))}
            topo["active_vlans"] = format_ranges(vl)
        used = set()
        ftags = []
        for _ in range(rng.randint(0, 5)):
            graph = rng.randint(0, 6)
            flags = rng.choice([0x02, 0x04, 0x06, 0x10, 0x14, 0x16, 0])
            if (graph, flags) in used:
                continue  # a repeated (graph, flags) would share a key
            used.add((graph, flags))
            ftags.append({"ftag": free_ftags.pop(), "graph": graph,
                          "flags": flags})
        topo["ftags"] = ftags
        topologies.append(topo)

    interfaces = []
    names = [c["name"] for c in contexts]
    for n, ifindex in enumerate(rng.sample(range(1, 5000), rng.randint(0, 8))):
        ifc = {"ifindex": ifindex, "iod": 100 + n, "name": f"e{ifindex}"}
        if names and rng.random() < 0.7:
            ifc["context"] = rng.choice(names)
        if topologies and rng.random() < 0.5:
            ifc["topologies"] = [{"name": f"n{ifindex}",
                                  "topology": rng.choice(topologies)["id"]}]
        interfaces.append(ifc)
    return {"cell": 2, "contexts": contexts, "interfaces": interfaces,
            "topologies": topologies}


def check_tarn(lib: tarn.Library, desc: dict) -> None:
    contexts = sorted(desc["contexts"], key=lambda c: c["id"])
    assert [(c.id, c.name) for c in lib.contexts()] == [
        (c["id"], c["name"]) for c in contexts]
    by_name = {c["name"]: c for c in contexts}
    for c in contexts:
        got = lib.context(c["name"])
        assert (got.id, int(got.state), got.reason) == (c["id"], c["state"], c["reason"])
        vpn = lib.vpn_id(c["name"])
        assert (vpn.words if vpn else None) == (tuple(c["vpn_id"]) if "vpn_id" in c else None)
        for t in c["tables"]:
            assert lib.table_id(c["id"], t["af"], t["name"]) == t["id"]
            assert lib.table(t["id"]) == tarn.Table(t["id"], c["id"], t["name"], 0)
            lim = lib.route_limits(t["id"])
            want = t.get("route_limits")
            assert (None if lim is None else
                    [lim.limit1, lim.limit3, lim.setting1, lim.setting2]) == (
                None if want is None else [want[0], want[2], want[3], want[4]])
    with_ctx = sorted((i for i in desc["interfaces"] if "context" in i),
                      key=lambda i: i["ifindex"])
    assert [(i.ifindex, i.context_name) for i in lib.interfaces()] == [
        (i["ifindex"], i["context"]) for i in with_ctx]
    for i in desc["interfaces"]:
        got = lib.interface_context(i["ifindex"])
        if "context" in i:
            assert got == tarn.InterfaceContext(
                i["ifindex"], by_name[i["context"]]["id"], i["context"])
        else:
            assert got is None


def check_gyre(lib: tarn.Library, desc: dict, rng: random.Random) -> None:
    g = lib.gyre
    topologies = desc["topologies"]
    assert [t.id for t in g.topologies()] == sorted(t["id"] for t in topologies)
    vlan_owner, ftag_owner = {}, {}
    for t in topologies:
        vl = tarn.vlans.parse_ranges(t.get("active_vlans", ""))
        for v in vl:
            vlan_owner[v] = t["id"]
        assert g.topology_vlans(t["id"]) == (vl if "active_vlans" in t else
                                             (None if not g.cache_enabled else set()))
        for f in t["ftags"]:
            ftag_owner[f["ftag"]] = t["id"]
        assert sorted(f.ftag for f in g.topology_ftags(t["id"])) == sorted(
            f["ftag"] for f in t["ftags"])
    probes = set(rng.sample(range(4096), 50)) | set(vlan_owner)
    for v in probes:
        assert g.vlan_topology(v) == vlan_owner.get(v)
    for f in set(rng.sample(range(1024), 50)) | set(ftag_owner):
        assert g.ftag_topology(f) == ftag_owner.get(f)
    for flt in (FtagFlags(0), FtagFlags.ACTIVE, FtagFlags.MULTICAST,
                FtagFlags.UNICAST | FtagFlags.ACTIVE):
        walked = list(g.ftags(flt))
        want = [f["ftag"] for t in topologies for f in t["ftags"]
                if f["flags"] & int(flt) == int(flt)]
        assert sorted(walked) == sorted(want)
    for i in desc["interfaces"]:
        names = {(t.id, t.name) for t in g.interface_topologies(i["ifindex"])}
        assert names == {(t["topology"], t["name"]) for t in i.get("topologies", [])}


@pytest.mark.parametrize("seed", SEEDS)
def test_random_devices_loaded_in_turn(seed):
    rng = random.Random(seed)
    with tarn.Device.temporary() as dev:
        for _ in range(3):
            desc = random_description(rng)
            dev.load(desc)
            with tarn.open() as lib:
                check_tarn(lib, desc)
                check_gyre(lib, desc, rng)
                with lib.client() as client:
                    client.enable_cache(as_format=False)
                    check_gyre(lib, desc, rng)
