// The device loader and `tarnctl load`: every refusal with its message and
// with nothing written, and a round trip from a description to the records
// that libtarn and the platform calls read back.

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/bond.h"
#include "platform/kvs.h"
#include "platform/nic.h"
#include "platform/tlvkit.h"
#include "platform/supv.h"
#include "support/fixture.h"
#include "support/tarnctl_process.h"
#include "tools/device_loader.h"

namespace {

using Bytes = std::vector<uint8_t>;

const std::string kTarnUri = "volatile:/tarnhost/running/tarn_global_kvs";
const std::string kGyreUri = "volatile:/tarnhost/running/gyre_kvs_info";
const std::string kCellUri = "volatile:/dev/shm/cell_mgr_kvs";

std::string fixture(const char *name)
{
    return std::string(TARN_SOURCE_DIR) + "/tests/fixtures/" + name;
}

// ---- keys, built here from the layouts rather than by the loader ----------

void be32(Bytes *k, size_t off, uint32_t v)
{
    uint32_t n = htonl(v);
    memcpy(k->data() + off, &n, 4);
}

Bytes tkey(uint32_t kind, uint32_t n)
{
    Bytes k(48, 0);
    be32(&k, 0, kind);
    be32(&k, 4, n);
    return k;
}

Bytes tkey_name(uint32_t kind, const char *name)
{
    Bytes k(48, 0);
    be32(&k, 0, kind);
    memcpy(k.data() + 4, name, strlen(name));
    return k;
}

Bytes tkey_table(uint32_t ctx, uint32_t af, const char *name)
{
    Bytes k(48, 0);
    be32(&k, 0, 2);
    be32(&k, 4, ctx);
    be32(&k, 8, af);
    memcpy(k.data() + 12, name, strlen(name));
    return k;
}

Bytes tkey_if_tpg(uint32_t ifindex, const char *name)
{
    Bytes k(48, 0);
    be32(&k, 0, 6);
    be32(&k, 4, ifindex);
    memcpy(k.data() + 8, name, strlen(name) < 16 ? strlen(name) : 16);
    return k;
}

template <typename T>
void host_put(Bytes *k, size_t off, T v)
{
    memcpy(k->data() + off, &v, sizeof v);
}

Bytes gkey(uint32_t type, uint32_t n)
{
    Bytes k(40, 0);
    host_put<uint32_t>(&k, 0, type);
    host_put<uint32_t>(&k, 4, n);
    return k;
}

Bytes gkey_name(uint32_t type, const char *name)
{
    Bytes k(40, 0);
    host_put<uint32_t>(&k, 0, type);
    memcpy(k.data() + 4, name, strlen(name));
    return k;
}

Bytes gkey_tpg_ftag(uint32_t tpg, uint16_t graph, uint8_t flags)
{
    Bytes k(40, 0);
    host_put<uint32_t>(&k, 0, 4);
    host_put<uint32_t>(&k, 4, tpg | 0xC0000000u);
    host_put<uint16_t>(&k, 8, graph);
    k[10] = flags;
    return k;
}

Bytes gkey_ftag(uint16_t ftag)
{
    Bytes k(40, 0);
    host_put<uint32_t>(&k, 0, 6);
    host_put<uint16_t>(&k, 4, ftag);
    return k;
}

// 0 with the value copied, or the read's status.
uint32_t get(const std::string &uri, const Bytes &key, Bytes *value)
{
    uint32_t st = kvs_open(uri.c_str(), 1, 0, 0, 0);
    if (st != 0 && st != KVS_ERR_ALREADY_OPEN)
        return st;
    kvs_datum_t k = {key.data(), static_cast<uint32_t>(key.size())};
    kvs_datum_t v = {nullptr, 0};
    st = kvs_read(uri.c_str(), &k, &v);
    if (st == 0) {
        const uint8_t *p = static_cast<const uint8_t *>(v.data);
        value->assign(p, p + v.len);
    }
    return st;
}

bool present(const std::string &uri, const Bytes &key)
{
    Bytes v;
    return get(uri, key, &v) == 0;
}

// The id in the first TLV of a kind 1 or 2 value; 0 when absent.
uint32_t id_of(const Bytes &key)
{
    Bytes v;
    if (get(kTarnUri, key, &v) != 0)
        return 0;
    uint32_t pos = 0, type = 0, len = 0;
    const void *val = nullptr;
    if (tlv_array_get_next_tlv(v.data(), static_cast<uint32_t>(v.size()), &pos,
                               &type, &val, &len) != 0 ||
        type != 1 || len != 4)
        return 0xBAD;
    uint32_t n;
    memcpy(&n, val, 4);
    return ntohl(n);
}

template <typename T>
using ToStruct = uint32_t (*)(T **, const void *, uint32_t, uint32_t);

// Reads and decodes one record; false when absent or undecodable.
template <typename T>
bool record(const std::string &uri, const Bytes &key, ToStruct<T> fn, T *out)
{
    Bytes v;
    if (get(uri, key, &v) != 0)
        return false;
    memset(out, 0, sizeof *out);
    T *p = out;
    return fn(&p, v.data(), static_cast<uint32_t>(v.size()), 1) == 0;
}

bool vlan_bit(const gyre_vlan_bmp_t &b, uint32_t v)
{
    return (b.bits[v / 8] & (0x80u >> (v % 8))) != 0;
}

std::vector<uint32_t> vlans_of(const gyre_vlan_bmp_t &b)
{
    std::vector<uint32_t> out;
    for (uint32_t v = 0; v <= 4095; ++v)
        if (vlan_bit(b, v))
            out.push_back(v);
    return out;
}

class loader : public tarntest::HostTest {
protected:
    void load_ok(const std::string &file)
    {
        tarndev::LoadOutcome r = tarndev::load_device_file(file);
        ASSERT_EQ(0, r.status) << r.message;
    }
    // Loads `text` expecting the refusal `message`, and checks that the
    // device loaded before is untouched.
    void refused(const std::string &textv, const std::string &message)
    {
        tarndev::LoadOutcome r = tarndev::load_device_text(textv, "doc.json");
        EXPECT_EQ(1, r.status) << textv;
        EXPECT_EQ(message, r.message) << textv;
        EXPECT_EQ(0u, r.store_status);
        EXPECT_EQ(message, tarndev::check_device_text(textv, "doc.json"));
        still_basic();
    }
    // A few facts of device_basic.json, one per database.
    void still_basic()
    {
        EXPECT_EQ(7u, id_of(tkey_name(1, "red")));
        EXPECT_STREQ("Ethernet1/1", nic_get_if_name(436211712));
        EXPECT_TRUE(present(kGyreUri, gkey_ftag(1023)));
        Bytes cell;
        ASSERT_EQ(0u, get(kCellUri, {0x1C, 0, 0, 0, 0}, &cell));
        ASSERT_EQ(530u, cell.size());
    }
};

// ---- round trip ------------------------------------------------------------

TEST_F(loader, contexts_and_tables_round_trip)
{
    load_ok(fixture("device_basic.json"));
    EXPECT_EQ(1u, id_of(tkey_name(1, "default")));
    EXPECT_EQ(2u, id_of(tkey_name(1, "management")));
    EXPECT_EQ(7u, id_of(tkey_name(1, "red")));
    EXPECT_EQ(1u, id_of(tkey_table(1, 1, "base")));
    EXPECT_EQ(2u, id_of(tkey_table(1, 2, "base")));
    EXPECT_EQ(70u, id_of(tkey_table(7, 1, "red-v4")));
    EXPECT_EQ(0u, id_of(tkey_table(7, 2, "red-v4")));

    tarn_context_info_t ci;
    ASSERT_TRUE(record(kTarnUri, tkey(3, 7), tarn_context_info_to_struct, &ci));
    EXPECT_EQ(1u, ci.state);
    EXPECT_EQ(4u, ci.reason);
    EXPECT_STREQ("red", ci.name);
    ASSERT_TRUE(record(kTarnUri, tkey(3, 1), tarn_context_info_to_struct, &ci));
    EXPECT_EQ(2u, ci.state);  // the default state is Up
    EXPECT_EQ(0u, ci.reason);
    EXPECT_STREQ("default", ci.name);

    tarn_table_info_t ti;
    ASSERT_TRUE(record(kTarnUri, tkey(4, 70), tarn_table_info_to_struct, &ti));
    EXPECT_EQ(7u, ti.context_id);
    EXPECT_STREQ("red-v4", ti.name);
    EXPECT_EQ(0u, ti.tpg_id);

    tarn_vpnid_info_t vpn;
    ASSERT_TRUE(record(kTarnUri, tkey_name(7, "red"), tarn_vpnid_info_to_struct,
                       &vpn));
    EXPECT_EQ(100u, vpn.w0);
    EXPECT_EQ(200u, vpn.w1);
    EXPECT_EQ(300u, vpn.w2);
    EXPECT_FALSE(present(kTarnUri, tkey_name(7, "default")));

    tarn_tib_rt_limits_t rl;
    ASSERT_TRUE(record(kTarnUri, tkey(9, 2), tarn_rt_limits_info_to_struct, &rl));
    EXPECT_EQ(10u, rl.limit1);
    EXPECT_EQ(20u, rl.limit2);
    EXPECT_EQ(30u, rl.limit3);
    EXPECT_EQ(1u, rl.setting1);
    EXPECT_EQ(0u, rl.setting2);
    ASSERT_TRUE(record(kTarnUri, tkey(9, 70), tarn_rt_limits_info_to_struct, &rl));
    EXPECT_EQ(1000u, rl.limit1);
    EXPECT_EQ(80u, rl.setting1);
    EXPECT_EQ(1u, rl.setting2);
    EXPECT_FALSE(present(kTarnUri, tkey(9, 1)));

    tarn_as_format_t af;
    Bytes k10(48, 0);
    be32(&k10, 0, 10);
    ASSERT_TRUE(record(kTarnUri, k10, tarn_as_format_to_struct, &af));
    EXPECT_EQ(2u, af.format);
}

TEST_F(loader, interfaces_round_trip)
{
    load_ok(fixture("device_basic.json"));
    EXPECT_STREQ("mgmt0", nic_get_if_name(83886080));
    EXPECT_STREQ("mgmt0", nic_get_if_short_name(83886080));
    EXPECT_STREQ("po1", nic_get_if_short_name(369098753));
    EXPECT_STREQ("Eth1/1", nic_get_if_short_name(436211712));
    EXPECT_NE(0u, nic_is_mgmtether(83886080));
    EXPECT_EQ(0u, nic_is_mgmtether(436211712));
    uint32_t v = 0;
    EXPECT_EQ(0u, nic_get_ifindex_frm_iod(17, &v));
    EXPECT_EQ(436211712u, v);
    EXPECT_EQ(0u, nic_get_iod_frm_ifindex(369098753, &v));
    EXPECT_EQ(2001u, v);
    uint8_t rec[BOND_PC_RECORD_SIZE] = {0};
    ASSERT_EQ(0u, bond_get_pc_for_port(436211712, rec));
    memcpy(&v, rec + BOND_PC_IFINDEX_OFFSET, 4);
    EXPECT_EQ(369098753u, v);
    ASSERT_EQ(0u, bond_get_pc_for_port(436211713, rec));
    memcpy(&v, rec + BOND_PC_IFINDEX_OFFSET, 4);
    EXPECT_EQ(0u, v);

    tarn_vname_t vn;
    ASSERT_TRUE(record(kTarnUri, tkey(5, 369098753), tarn_vname_to_struct, &vn));
    EXPECT_STREQ("red", vn.name);
    ASSERT_TRUE(record(kTarnUri, tkey(5, 83886080), tarn_vname_to_struct, &vn));
    EXPECT_STREQ("management", vn.name);
    EXPECT_FALSE(present(kTarnUri, tkey(5, 436211712)));

    tarn_soo_info_t soo;
    ASSERT_TRUE(record(kTarnUri, tkey(8, 436211712), tarn_soo_info_to_struct, &soo));
    EXPECT_EQ(3u, soo.word);
    EXPECT_EQ(0x0102030405060708ull, static_cast<uint64_t>(soo.soo));
    EXPECT_FALSE(present(kTarnUri, tkey(8, 436211713)));

    tarn_table_info_t ti;
    ASSERT_TRUE(record(kTarnUri, tkey_if_tpg(436211712, "fabric-one"),
                       tarn_table_info_to_struct, &ti));
    EXPECT_EQ(5u | 0xC0000000u, ti.tpg_id);
    EXPECT_STREQ("fabric-one", ti.name);
    // The key keeps 16 characters of the name, the record all of it.
    ASSERT_TRUE(record(kTarnUri, tkey_if_tpg(436211712, "a-very-long-topology-name"),
                       tarn_table_info_to_struct, &ti));
    EXPECT_EQ(6u | 0xC0000000u, ti.tpg_id);
    EXPECT_STREQ("a-very-long-topology-name", ti.name);

    gyre_if_vlan_info_t iv;
    ASSERT_TRUE(record(kGyreUri, gkey(3, 2001), gyre_if_vlan_info_to_struct, &iv));
    EXPECT_EQ(369098753u, iv.ifindex);
    EXPECT_EQ(512u, iv.vlans.len);
    EXPECT_EQ((std::vector<uint32_t>{10, 11, 12, 20}), vlans_of(iv.vlans));
    ASSERT_TRUE(record(kGyreUri, gkey(2, 2001), gyre_if_vlan_info_to_struct, &iv));
    EXPECT_EQ(21u, vlans_of(iv.vlans).size());
    EXPECT_TRUE(vlan_bit(iv.vlans, 30));
    // An empty text is an empty set, written; an absent key writes nothing.
    ASSERT_TRUE(record(kGyreUri, gkey(3, 18), gyre_if_vlan_info_to_struct, &iv));
    EXPECT_TRUE(vlans_of(iv.vlans).empty());
    EXPECT_FALSE(present(kGyreUri, gkey(2, 18)));
    EXPECT_FALSE(present(kGyreUri, gkey(3, 17)));
}

TEST_F(loader, topologies_round_trip)
{
    load_ok(fixture("device_basic.json"));
    tarn_table_info_t ti;
    ASSERT_TRUE(record(kTarnUri, tkey(4, 5u | 0xC0000000u),
                       tarn_table_info_to_struct, &ti));
    EXPECT_EQ(5u | 0xC0000000u, ti.tpg_id);
    EXPECT_STREQ("5", ti.name);
    EXPECT_EQ(0u, ti.context_id);

    gyre_tpg_vlan_info_t tv;
    ASSERT_TRUE(record(kGyreUri, gkey_name(1, "5"), gyre_tpg_vlan_info_to_struct, &tv));
    EXPECT_EQ(5u | 0xC0000000u, tv.tpg_id);
    EXPECT_STREQ("5", tv.name);
    EXPECT_EQ((std::vector<uint32_t>{10, 11, 12}), vlans_of(tv.vlans));
    ASSERT_TRUE(record(kGyreUri, gkey_name(0, "5"), gyre_tpg_vlan_info_to_struct, &tv));
    EXPECT_EQ(10u, vlans_of(tv.vlans).size());
    EXPECT_FALSE(present(kGyreUri, gkey_name(0, "6")));

    gyre_kvs_vlan_info_t vi;
    ASSERT_TRUE(record(kGyreUri, gkey(5, 11), gyre_kvs_vlan_info_to_struct, &vi));
    EXPECT_EQ(5u, vi.tpg_id & 0x3FFFFFFFu);
    EXPECT_EQ(0xC0000000u, vi.tpg_id & 0xC0000000u);
    EXPECT_STREQ("5", vi.name);
    ASSERT_TRUE(record(kGyreUri, gkey(5, 20), gyre_kvs_vlan_info_to_struct, &vi));
    EXPECT_EQ(6u | 0xC0000000u, vi.tpg_id);
    // Only active VLANs are mapped to their topology.
    EXPECT_FALSE(present(kGyreUri, gkey(5, 15)));

    // Ftags: the default flags follow the graph (1 unicast, else multicast).
    Bytes raw;
    ASSERT_EQ(0u, get(kGyreUri, gkey_tpg_ftag(5, 1, 0x10), &raw));
    ASSERT_EQ(8u, raw.size());
    uint16_t f16;
    uint32_t f32;
    memcpy(&f16, raw.data(), 2);
    EXPECT_EQ(1u, f16);
    memcpy(&f16, raw.data() + 2, 2);
    EXPECT_EQ(1u, f16);
    memcpy(&f32, raw.data() + 4, 4);
    EXPECT_EQ(0x10u, f32);
    ASSERT_EQ(0u, get(kGyreUri, gkey_tpg_ftag(5, 2, 0x06), &raw));
    memcpy(&f16, raw.data(), 2);
    EXPECT_EQ(2u, f16);
    EXPECT_FALSE(present(kGyreUri, gkey_tpg_ftag(5, 2, 0x02)));
    ASSERT_EQ(0u, get(kGyreUri, gkey_tpg_ftag(6, 3, 0x02), &raw));
    memcpy(&f16, raw.data(), 2);
    EXPECT_EQ(1023u, f16);

    gyre_ftag_info_t fi;
    ASSERT_TRUE(record(kGyreUri, gkey_ftag(2), gyre_ftag_info_to_struct, &fi));
    EXPECT_EQ(5u | 0xC0000000u, fi.tpg_id);
    EXPECT_EQ(2u, fi.graph_id);
    EXPECT_EQ(2u, fi.ftag);
    EXPECT_EQ(6u, fi.flags);
    ASSERT_TRUE(record(kGyreUri, gkey_ftag(1023), gyre_ftag_info_to_struct, &fi));
    EXPECT_EQ(6u, fi.tpg_id & 0x3FFFFFFFu);
    EXPECT_FALSE(present(kGyreUri, gkey_ftag(3)));
}

TEST_F(loader, cell_manager_record_and_device_up)
{
    load_ok(fixture("device_basic.json"));
    Bytes cell;
    ASSERT_EQ(0u, get(kCellUri, {0x1C, 0, 0, 0, 0}, &cell));
    ASSERT_EQ(526u + 4u, cell.size());
    EXPECT_EQ(0, cell[520]);
    EXPECT_EQ(1, cell[521]);
    EXPECT_EQ((Bytes{0, 0, 0, 2}), Bytes(cell.begin() + 522, cell.begin() + 526));
    EXPECT_EQ((Bytes{0, 1, 0, 2}), Bytes(cell.begin() + 526, cell.end()));
    const char *running = supv_running_cfg_uri_get();
    ASSERT_NE(nullptr, running);
    EXPECT_STREQ(TARNHOST_RUNNING_URI, running);
}

TEST_F(loader, defaults_of_an_empty_description)
{
    tarndev::LoadOutcome r = tarndev::load_device_text("{}");
    ASSERT_EQ(0, r.status) << r.message;
    Bytes cell;
    ASSERT_EQ(0u, get(kCellUri, {0x1C, 0, 0, 0, 0}, &cell));
    ASSERT_EQ(528u, cell.size());
    EXPECT_EQ(1, cell[521]);
    EXPECT_EQ(1, cell[525]);
    EXPECT_EQ(1, cell[527]);
    Bytes k10(48, 0);
    be32(&k10, 0, 10);
    EXPECT_FALSE(present(kTarnUri, k10));
    EXPECT_NE(nullptr, supv_running_cfg_uri_get());
}

TEST_F(loader, reloading_replaces_the_device)
{
    load_ok(fixture("device_basic.json"));
    load_ok(fixture("device_other.json"));
    EXPECT_EQ(9u, id_of(tkey_name(1, "blue")));
    EXPECT_EQ(0u, id_of(tkey_name(1, "red")));
    EXPECT_FALSE(present(kTarnUri, tkey(3, 7)));
    EXPECT_FALSE(present(kTarnUri, tkey(8, 436211712)));
    EXPECT_STREQ("unknown(436211712)", nic_get_if_name(436211712));
    EXPECT_STREQ("Ethernet1/3", nic_get_if_name(436211714));
    uint32_t v;
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_ifindex_frm_iod(17, &v));
    EXPECT_FALSE(present(kGyreUri, gkey_ftag(1023)));
    EXPECT_FALSE(present(kGyreUri, gkey(5, 11)));
    EXPECT_TRUE(present(kGyreUri, gkey(5, 100)));
    Bytes cell;
    ASSERT_EQ(0u, get(kCellUri, {0x1C, 0, 0, 0, 0}, &cell));
    EXPECT_EQ(2, cell[521]);
}

TEST_F(loader, the_example_loads)
{
    tarndev::LoadOutcome r = tarndev::load_device_file(
        std::string(TARN_SOURCE_DIR) + "/examples/device.json");
    ASSERT_EQ(0, r.status) << r.message;
    EXPECT_GE(r.contexts, 3u);
    EXPECT_GE(r.interfaces, 24u);
    EXPECT_GE(r.topologies, 3u);
}

TEST_F(loader, comments_are_ignored_at_every_level)
{
    tarndev::LoadOutcome r = tarndev::load_device_text(R"({
      "_comment": "top",
      "contexts": [{"_c": 1, "id": 3, "name": "c",
                    "tables": [{"_": [], "id": 4, "af": 0, "name": "t"}]}],
      "interfaces": [{"_x": {}, "ifindex": 1, "iod": 1, "name": "e",
                      "soo": {"_why": "s", "value": "0xFFFFFFFFFFFFFFFF"},
                      "topologies": [{"_": 0, "name": "n", "topology": 1}]}],
      "topologies": [{"_": 0, "id": 1, "ftags": [{"_": 0, "ftag": 0, "graph": 0}]}]
    })");
    ASSERT_EQ(0, r.status) << r.message;
    EXPECT_EQ(4u, id_of(tkey_table(3, 0, "t")));
    tarn_soo_info_t soo;
    ASSERT_TRUE(record(kTarnUri, tkey(8, 1), tarn_soo_info_to_struct, &soo));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFull, static_cast<uint64_t>(soo.soo));
    EXPECT_EQ(0u, soo.word);
}

// ---- refusals ----------------------------------------------------------------

TEST_F(loader, refuses_unknown_keys)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"colour": 1})", "colour: unknown key");
    // A key with a control character is named as JSON writes it: the
    // message stays one line.
    refused(R"({"a\nb": 1})", "a\\nb: unknown key");
    refused("{\"contexts\": [{\"id\": 2, \"name\": \"a\", \"x\\u0007\": 1}]}",
            "contexts[0].x\\u0007: unknown key");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [
              {"id": 2, "af": 1, "name": "b", "colour": 1}]}]})",
            "contexts[0].tables[0].colour: unknown key");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e",
              "soo": {"value": "0x0000000000000001", "Word": 1}}]})",
            "interfaces[0].soo.Word: unknown key");
    refused(R"({"topologies": [{"id": 1, "ftags": [{"ftag": 1, "graph": 1, "flag": 2}]}]})",
            "topologies[0].ftags[0].flag: unknown key");
}

TEST_F(loader, refuses_wrong_types)
{
    load_ok(fixture("device_basic.json"));
    refused("[]", "(top level): expected an object");
    refused(R"({"contexts": {}})", "contexts: expected a list");
    refused(R"({"contexts": [1]})", "contexts[0]: expected an object");
    refused(R"({"contexts": [{"id": "1", "name": "a"}]})",
            "contexts[0].id: expected a number");
    refused(R"({"contexts": [{"id": 1.5, "name": "a"}]})",
            "contexts[0].id: expected a whole number");
    refused(R"({"contexts": [{"id": 1e300, "name": "a"}]})",
            "contexts[0].id: 1e300 is out of range 1..4294967295");
    EXPECT_EQ("", tarndev::check_device_text(R"({"contexts": [{"id": 1e3, "name": "a"}]})"));
    refused(R"({"contexts": [{"id": 1, "name": 5}]})",
            "contexts[0].name: expected text");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "mgmt": 1}]})",
            "interfaces[0].mgmt: expected true or false");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "active_vlans": [10]}]})",
            "interfaces[0].active_vlans: expected text");
    refused(R"({"cells": 1})", "cells: expected a list");
    refused(R"({"as_format": null})", "as_format: expected a number");
}

TEST_F(loader, refuses_missing_keys)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"contexts": [{"name": "a"}]})", "contexts[0].id: required key missing");
    refused(R"({"interfaces": [{"ifindex": 1, "name": "e"}]})",
            "interfaces[0].iod: required key missing");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "soo": {"word": 1}}]})",
            "interfaces[0].soo.value: required key missing");
    refused(R"({"topologies": [{"id": 1, "ftags": [{"ftag": 1}]}]})",
            "topologies[0].ftags[0].graph: required key missing");
}

TEST_F(loader, refuses_numbers_out_of_range)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"contexts": [{"id": 0, "name": "a"}]})",
            "contexts[0].id: 0 is out of range 1..4294967295");
    refused(R"({"contexts": [{"id": 4294967296, "name": "a"}]})",
            "contexts[0].id: 4294967296 is out of range 1..4294967295");
    refused(R"({"contexts": [{"id": -1, "name": "a"}]})",
            "contexts[0].id: -1 is out of range 1..4294967295");
    refused(R"({"contexts": [{"id": 1, "name": "a", "state": 3}]})",
            "contexts[0].state: 3 is out of range 0..2");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [{"id": 3221225472, "af": 1, "name": "t"}]}]})",
            "contexts[0].tables[0].id: 3221225472 is out of range 1..3221225471");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [{"id": 3, "af": 3, "name": "t"}]}]})",
            "contexts[0].tables[0].af: 3 is out of range 0..2");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [{"id": 3, "af": 1, "name": "t",
              "route_limits": [1, 2, 3, 256, 0]}]}]})",
            "contexts[0].tables[0].route_limits[3]: 256 is out of range 0..255");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [{"id": 3, "af": 1, "name": "t",
              "route_limits": [1, 2, 3, 4]}]}]})",
            "contexts[0].tables[0].route_limits: expected a list of 5 numbers");
    refused(R"({"contexts": [{"id": 1, "name": "a", "vpn_id": [1, 2]}]})",
            "contexts[0].vpn_id: expected a list of 3 numbers");
    refused(R"({"interfaces": [{"ifindex": 0, "iod": 1, "name": "e"}]})",
            "interfaces[0].ifindex: 0 is out of range 1..4294967295");
    refused(R"({"topologies": [{"id": 1073741824}]})",
            "topologies[0].id: 1073741824 is out of range 1..1073741823");
    refused(R"({"topologies": [{"id": 1, "ftags": [{"ftag": 1024, "graph": 1}]}]})",
            "topologies[0].ftags[0].ftag: 1024 is out of range 0..1023");
    refused(R"({"topologies": [{"id": 1, "ftags": [{"ftag": 1, "graph": 1, "flags": 256}]}]})",
            "topologies[0].ftags[0].flags: 256 is out of range 0..255");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e",
              "topologies": [{"name": "t", "topology": 0}]}]})",
            "interfaces[0].topologies[0].topology: 0 is out of range 1..1073741823");
    refused(R"({"cell": 65536})", "cell: 65536 is out of range 0..65535");
    refused(R"({"cells": [1, -2]})", "cells[1]: -2 is out of range 0..65535");
}

TEST_F(loader, refuses_numbers_that_vanish_like_numbers_that_overflow)
{
    load_ok(fixture("device_basic.json"));
    // Too small for a double: it would read as 0 (or lose its digits).
    refused(R"({"contexts": [{"id": 1, "name": "a", "state": 1e-400}]})",
            "contexts[0].state: the number 1e-400 is out of range");
    refused(R"({"_comment": [0.5, 1e-400], "contexts": []})",
            "_comment[1]: the number 1e-400 is out of range");
    refused(R"({"contexts": [{"id": 1, "name": "a", "state": 4e-320}]})",
            "contexts[0].state: the number 4e-320 is out of range");
    refused(R"({"contexts": [{"id": 1, "name": "a", "state": -1E-999}]})",
            "contexts[0].state: the number -1E-999 is out of range");
    // Not a whole number: refused by the field that wants one.
    refused(R"({"contexts": [{"id": 1, "name": "a", "state": 0.5}]})",
            "contexts[0].state: expected a whole number");
    for (const char *zero : {"-0", "-0.0", "-0e3", "-0E-2"}) {
        SCOPED_TRACE(zero);
        refused(std::string(R"({"contexts": [{"id": 1, "name": "a", "state": )") + zero + "}]}",
                "contexts[0].state: expected a whole number, not a negative zero (-0); write 0");
    }
    // Zero written as zero, and small numbers a double holds, stay.
    for (const char *ok : {"0", "0.0", "0e-400", "1e-300", "-0.5"}) {
        SCOPED_TRACE(ok);
        EXPECT_EQ("", tarndev::check_device_text(std::string(R"({"_comment": )") + ok +
                                                 R"(, "contexts": [{"id": 1, "name": "a", "state": 0}]})"));
    }
    // "-0" inside a text is text.
    EXPECT_EQ("", tarndev::check_device_text(
                      R"({"contexts": [{"id": 1, "name": "a-0", "state": 0}], "_c": "x\"-0"})"));
    EXPECT_EQ("", tarndev::check_device_text(R"({"_c": [1e-0, 2E-0], "contexts": []})"));
}

TEST_F(loader, refuses_numbers_no_field_can_hold_wherever_they_stand)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"contexts": [{"id": 1e400, "name": "a"}]})",
            "contexts[0].id: the number 1e400 is out of range");
    refused(R"({"_comment": 1e400, "contexts": []})", "_comment: the number 1e400 is out of range");
    refused(R"({"contexts": [{"id": 1, "name": "a", "_note": [1, {"x": -1e400}]}]})",
            "contexts[0]._note[1].x: the number -1e400 is out of range");
    refused("1e400", "doc.json: the number 1e400 is out of range");
    // Large but finite: the field's own range check.
    refused(R"({"contexts": [{"id": 1e300, "name": "a"}]})",
            "contexts[0].id: 1e300 is out of range 1..4294967295");
    refused(R"({"contexts": [{"id": 123456789012345678901234567890, "name": "a"}]})",
            "contexts[0].id: 123456789012345678901234567890 is out of range 1..4294967295");
    // Comments may hold any number a double holds.
    tarndev::LoadOutcome r = tarndev::load_device_text(
        R"({"_comment": [1e300, -1e-300, 123456789012345678901234567890]})", "doc.json");
    EXPECT_EQ(0, r.status) << r.message;
    load_ok(fixture("device_basic.json"));
    std::string deep = "{\"_c\": ";
    std::string path = "_c";
    for (int i = 0; i < 64; ++i) {
        deep += "[";
        if (i < 63)
            path += "[0]";
    }
    deep += std::string(64, ']') + "}";
    refused(deep, path + ": nested deeper than 64 levels");
}

// A key given twice in one object would let the later value silently win;
// the description is refused with the key's path, at any depth.
TEST_F(loader, refuses_a_key_given_twice)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"contexts": [], "contexts": []})", "contexts: given twice");
    refused(R"({"contexts": [{"id": 2, "name": "a", "id": 3}]})", "contexts[0].id: given twice");
    refused(R"({"_comment": {"x": 1, "x": 1}})", "_comment.x: given twice");
    // The same key in two objects is two facts, not one said twice.
    tarndev::LoadOutcome r = tarndev::load_device_text(
        R"({"contexts": [{"id": 2, "name": "a"}, {"id": 3, "name": "b"}]})", "doc.json");
    EXPECT_EQ(0, r.status) << r.message;
}

TEST_F(loader, refuses_bad_names)
{
    load_ok(fixture("device_basic.json"));
    const std::string n33(33, 'x');
    refused(R"({"contexts": [{"id": 1, "name": "a"}, {"id": 2, "name": "b"},
              {"id": 3, "name": "c", "tables": [{"id": 4, "af": 1, "name": ")" +
                n33 + R"("}]}]})",
            "contexts[2].tables[0].name: text longer than 32 bytes");
    refused(R"({"contexts": [{"id": 1, "name": ""}]})", "contexts[0].name: text is empty");
    refused(R"({"contexts": [{"id": 1, "name": "a\u0000b"}]})",
            "contexts[0].name: text contains a NUL character");
    refused(R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "short_name": ")" +
                n33 + R"("}]})",
            "interfaces[0].short_name: text longer than 32 bytes");
    // 32 bytes are fine.
    const std::string n32(32, 'y');
    EXPECT_EQ("", tarndev::check_device_text(R"({"contexts": [{"id": 1, "name": ")" +
                                             n32 + R"("}]})"));
}

TEST_F(loader, refuses_bad_hex_and_vlan_text)
{
    load_ok(fixture("device_basic.json"));
    const char *soo = R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "soo": {"value": "%s"}}]})";
    const char *bad_hex[] = {"0x010203040506070", "0x01020304050607080",
                             "010203040506070809", "0x01020304050607g8", ""};
    for (const char *h : bad_hex) {
        char doc[256];
        snprintf(doc, sizeof doc, soo, h);
        refused(doc, "interfaces[0].soo.value: expected \"0x\" and 16 hexadecimal digits");
    }
    const char *vl = R"({"interfaces": [{"ifindex": 1, "iod": 1, "name": "e", "configured_vlans": "%s"}]})";
    const std::pair<const char *, const char *> bad_vlans[] = {
        {"10-x", "bad VLAN list \"10-x\": expected a number at character 4"},
        {"10,", "bad VLAN list \"10,\": a number is missing at the end"},
        {"20-10", "bad VLAN list \"20-10\": range 20-10 runs backwards"},
        {"4096", "bad VLAN list \"4096\": VLAN 4096 is out of range 0..4095"},
        {"1;2", "bad VLAN list \"1;2\": expected \",\" at character 2"},
    };
    for (const auto &b : bad_vlans) {
        char doc[256];
        snprintf(doc, sizeof doc, vl, b.first);
        refused(doc, std::string("interfaces[0].configured_vlans: ") + b.second);
    }
}

TEST_F(loader, refuses_facts_that_collide)
{
    load_ok(fixture("device_basic.json"));
    refused(R"({"contexts": [{"id": 1, "name": "a"}, {"id": 1, "name": "b"}]})",
            "contexts[1].id: 1 is already used by contexts[0].id");
    refused(R"({"contexts": [{"id": 1, "name": "a"}, {"id": 2, "name": "a"}]})",
            "contexts[1].name: \"a\" is already used by contexts[0].name");
    refused(R"({"contexts": [{"id": 1, "name": "a", "tables": [{"id": 5, "af": 1, "name": "t"}]},
              {"id": 2, "name": "b", "tables": [{"id": 5, "af": 1, "name": "u"}]}]})",
            "contexts[1].tables[0].id: 5 is already used by contexts[0].tables[0].id");
    refused(R"({"interfaces": [{"ifindex": 5, "iod": 1, "name": "e"},
              {"ifindex": 5, "iod": 2, "name": "f"}]})",
            "interfaces[1].ifindex: 5 is already used by interfaces[0].ifindex");
    refused(R"({"interfaces": [{"ifindex": 5, "iod": 1, "name": "e"},
              {"ifindex": 6, "iod": 1, "name": "f"}]})",
            "interfaces[1].iod: 1 is already used by interfaces[0].iod");
    refused(R"({"topologies": [{"id": 1, "ftags": [{"ftag": 9, "graph": 1}]},
              {"id": 2, "ftags": [{"ftag": 9, "graph": 2}]}]})",
            "topologies[1].ftags[0].ftag: 9 is already used by topologies[0].ftags[0].ftag");
    refused(R"({"topologies": [{"id": 1, "active_vlans": "5-9"}, {"id": 2, "active_vlans": "9"}]})",
            "topologies[1].active_vlans: active VLAN 9 is already used by topologies[0].active_vlans");
}

TEST_F(loader, refuses_unreadable_and_malformed_files)
{
    load_ok(fixture("device_basic.json"));
    tarndev::LoadOutcome r = tarndev::load_device_file(root_ + "/absent.json");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("cannot read " + root_ + "/absent.json: No such file or directory",
              r.message);
    r = tarndev::load_device_file(root_);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("cannot read " + root_ + ": Is a directory", r.message);

    r = tarndev::load_device_text(R"({"contexts": [)", "doc.json");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.message.rfind("doc.json: not valid JSON: ", 0)) << r.message;
    r = tarndev::load_device_text("", "doc.json");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.message.rfind("doc.json: not valid JSON: ", 0)) << r.message;
    still_basic();
}

TEST_F(loader, refusal_on_a_fresh_root_writes_no_database)
{
    tarndev::LoadOutcome r = tarndev::load_device_text(
        R"({"contexts": [{"id": 1, "name": "a"}], "bogus": 1})");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("bogus: unknown key", r.message);
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
    std::string kvs = root_ + "/kvs/volatile";
    EXPECT_NE(0, access(kvs.c_str(), F_OK));
}

// ---- tarnctl load ------------------------------------------------------------

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

std::string slurp(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

ToolRun tarnctl(const std::string &args, const std::string &root)
{
    const std::string out = root + "/tarnctl.out", err = root + "/tarnctl.err";
    std::string cmd;
    for (const std::string &word : tarntest::program_command(TARNCTL_PATH))
        cmd += "'" + word + "' ";
    cmd += args + " >'" + out + "' 2>'" + err + "'";
    int rc = system(cmd.c_str());
    ToolRun r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
}

size_t lines(const std::string &s)
{
    size_t n = 0;
    for (char c : s)
        n += c == '\n';
    return n;
}

using tarnctl_load = loader;

TEST_F(tarnctl_load, loads_a_description)
{
    ToolRun r = tarnctl("load '" + fixture("device_basic.json") + "'", root_);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_NE(std::string::npos, r.out.find("3 contexts, 3 tables, 4 interfaces, 2 topologies"))
        << r.out;
    still_basic();
}

TEST_F(tarnctl_load, refusal_is_one_line_and_status_1)
{
    load_ok(fixture("device_basic.json"));
    const std::string bad = root_ + "/bad.json";
    {
        std::ofstream f(bad);
        f << R"({"contexts": [{"id": 1, "name": "a", "state": 7}]})";
    }
    ToolRun r = tarnctl("load '" + bad + "'", root_);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(1u, lines(r.err)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("contexts[0].state: 7 is out of range 0..2"))
        << r.err;
    EXPECT_NE(std::string::npos, r.err.find("nothing was written")) << r.err;
    EXPECT_EQ("", r.out);
    still_basic();

    r = tarnctl("load '" + root_ + "/absent.json'", root_);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(1u, lines(r.err)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("No such file or directory")) << r.err;
}

TEST_F(tarnctl_load, an_overflowing_number_is_refused_not_fatal)
{
    load_ok(fixture("device_basic.json"));
    const std::string bad = root_ + "/bad.json";
    std::ofstream(bad) << R"({"_comment": 1e400})";
    ToolRun r = tarnctl("load '" + bad + "'", root_);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: _comment: the number 1e400 is out of range; nothing was written, "
              "correct " + bad + " and run \"tarnctl load " + bad + "\" again\n",
              r.err);
    still_basic();
}

TEST_F(tarnctl_load, a_damaged_store_is_rebuilt_and_said_so)
{
    load_ok(fixture("device_other.json"));
    const std::string data = root_ + "/kvs/env/data.mdb";
    // Loaded in this process: the files are replaced on disk, and this
    // process's view must follow.
    ASSERT_EQ(0, truncate(data.c_str(), 4096));
    const std::string file = fixture("device_basic.json");
    ToolRun r = tarnctl("load '" + file + "'", root_);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(0u, r.out.find("the store of " + root_ + " was damaged: rebuilt it from " + file +
                             "\n"))
        << r.out;
    EXPECT_EQ(2u, lines(r.out)) << r.out;
    // A second load finds nothing wrong.
    r = tarnctl("load '" + file + "'", root_);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(1u, lines(r.out)) << r.out;
}

TEST_F(tarnctl_load, usage_errors_are_status_2)
{
    EXPECT_EQ(2, tarnctl("", root_).status);
    EXPECT_EQ(2, tarnctl("frobnicate", root_).status);
    ToolRun r = tarnctl("load", root_);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(1u, lines(r.err)) << r.err;
    EXPECT_EQ(2, tarnctl("load a.json b.json", root_).status);
    EXPECT_EQ(2, tarnctl("load --force a.json", root_).status);
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
}

TEST_F(tarnctl_load, help_is_status_0)
{
    ToolRun r = tarnctl("--help", root_);
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("load")) << r.out;
    r = tarnctl("load --help", root_);
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("usage: tarnctl load FILE")) << r.out;
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
}

}  // namespace
