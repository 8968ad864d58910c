// The Tarn side at its limits: values that no device description can
// produce, written straight into the store; names that share a prefix
// wherever a name is compared; and each bound on both of its sides.

#include <arpa/inet.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "core/state.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

using tarntest::captured;

extern "C" uint32_t tarn_read_cell_mgr_record(void **copy);

namespace {

class Limits : public tarntest::DeviceTest {
};

std::vector<uint8_t> key_with_id(uint32_t kind, uint32_t id)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind), v = htonl(id);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], &v, 4);
    return key;
}

// Stores a context record as the service would, with any state at all.
void put_context(uint32_t id, uint32_t state, uint32_t reason, const char *name)
{
    tarn_context_info_t rec;
    memset(&rec, 0, sizeof rec);
    rec.state = state;
    rec.reason = reason;
    strncpy(rec.name, name, sizeof rec.name - 1);
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_context_info_to_tlv(&rec, &buf, &len, 0, nullptr, 0));
    const std::vector<uint8_t> key = key_with_id(TARN_KVS_KIND_CONTEXT_INFO, id);
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48, buf, len));
    free(buf);
}

std::vector<uint32_t> walk_contexts(std::vector<std::string> *names)
{
    std::vector<uint32_t> ids;
    tarn_context_info_t info;
    for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
         id = tarn_get_next_context_info(id, &info)) {
        ids.push_back(id);
        names->push_back(info.name);
    }
    return ids;
}

std::vector<uint32_t> walk_interfaces(const char *filter)
{
    std::vector<uint32_t> found;
    tarn_if_context_info_t info;
    for (uint32_t i = tarn_get_next_if_context_info(0, filter, &info); i != 0;
         i = tarn_get_next_if_context_info(i, filter, &info)) {
        found.push_back(i);
        if (filter != nullptr) {
            EXPECT_STREQ(filter, info.context_name) << i;
        }
    }
    return found;
}

// ---- values the loader never writes ------------------------------------------------------

// A description's state is 0..2; the service could still store more.  Only
// 2 is "Up": every other value, however large, leaves the interface unusable
// and has no text of its own.
TEST_F(Limits, OnlyStateTwoIsUpWhateverTheStoreHolds)
{
    // A standby cell: interfaces are looked up, not all "default".
    load(R"({"cell": 2, "cells": [1, 2],
             "contexts": [{"id": 3, "name": "a"}, {"id": 4, "name": "b"}, {"id": 5, "name": "c"},
                          {"id": 6, "name": "d"}],
             "interfaces": [{"ifindex": 13, "iod": 13, "name": "e13", "context": "a"},
                            {"ifindex": 14, "iod": 14, "name": "e14", "context": "b"},
                            {"ifindex": 15, "iod": 15, "name": "e15", "context": "c"},
                            {"ifindex": 16, "iod": 16, "name": "e16", "context": "d"}]})");
    put_context(3, 1, 0, "a");
    put_context(4, 2, 0, "b");
    put_context(5, 3, 0, "c");
    put_context(6, 0xFFFFFFFF, 7, "d");
    EXPECT_EQ(0u, tarn_is_if_usable(13));
    EXPECT_EQ(1u, tarn_is_if_usable(14));
    EXPECT_EQ(0u, tarn_is_if_usable(15));
    EXPECT_EQ(0u, tarn_is_if_usable(16));
    tarn_context_info_t info;
    ASSERT_EQ(1u, tarn_get_context_info(5, &info));
    EXPECT_EQ(3u, info.state) << "passed on as stored";
    ASSERT_EQ(1u, tarn_get_context_info(6, &info));
    EXPECT_EQ(0xFFFFFFFFu, info.state);
    EXPECT_EQ(7u, info.reason);
    EXPECT_TRUE(captured().empty());
}

TEST_F(Limits, TextTablesEndAtTheirLastRow)
{
    EXPECT_STREQ("Up", tarn_state2str(2));
    EXPECT_STREQ("<unknown>", tarn_state2str(3));
    EXPECT_STREQ("<unknown>", tarn_state2str(0xFFFFFFFF));
    EXPECT_STREQ("Delete Pending", tarn_reason2str(4));
    EXPECT_STREQ("<unknown>", tarn_reason2str(5));
    EXPECT_STREQ("IPv6", tarn_af_ix2str(2));
    EXPECT_STREQ("<unknown>", tarn_af_ix2str(3));
    EXPECT_STREQ("<unknown>", tarn_af_ix2str(0x80000000));
}

// A context record under id 0, which no description can hold, is still a
// context to the walk, which answers the key's id: 0, which the caller
// cannot tell from the end.  A lookup of id 0 never reads it.
TEST_F(Limits, ContextRecordUnderIdZeroEndsTheWalk)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}]})");
    put_context(0, 2, 0, "zero");
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_context_info(0, &info));
    memset(&info, 0, sizeof info);
    EXPECT_EQ(0u, tarn_get_next_context_info(0, &info));
    EXPECT_STREQ("zero", info.name);
    EXPECT_TRUE(captured().empty());
}

// The id records of contexts and tables hold a TLV array whose first TLV
// carries the id.  A TLV whose length runs past the value, however far
// (up to the length where offset plus length would pass 32 bits), is no
// id: the answer is 0, as for an absent record.  A TLV of 4 bytes or more
// gives its first 4.
TEST_F(Limits, IdRecordsWhoseTlvLengthRunsPastTheValue)
{
    load(R"({"contexts": [{"id": 3, "name": "red", "tables": [{"id": 30, "af": 1, "name": "m"}]}]})");
    std::vector<uint8_t> key(48, 0);
    key[3] = 1;
    memcpy(&key[4], "x", 1);
    auto put_id_value = [&](uint32_t tlv_len, size_t bytes) {
        std::vector<uint8_t> v = {0, 0, 0, 1};
        const uint32_t be = htonl(tlv_len);
        v.insert(v.end(), reinterpret_cast<const uint8_t *>(&be),
                 reinterpret_cast<const uint8_t *>(&be) + 4);
        for (size_t i = 0; i < bytes; ++i)
            v.push_back(static_cast<uint8_t>(i == 3 ? 9 : 0));
        ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48,
                                       v.data(), static_cast<uint32_t>(v.size())));
    };
    put_id_value(4, 4);
    EXPECT_EQ(9u, tarn_get_context_id("x"));
    put_id_value(5, 5);
    EXPECT_EQ(9u, tarn_get_context_id("x"));
    put_id_value(3, 3);
    EXPECT_EQ(0u, tarn_get_context_id("x")) << "too short for an id";
    for (uint32_t len : {5u, 8u, 0x7FFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(len);
        put_id_value(len, 4);
        EXPECT_EQ(0u, tarn_get_context_id("x"));
    }
    // The table id records are read the same way.
    key = key_with_id(TARN_KVS_KIND_TABLE_ID, 3);
    const uint32_t af = htonl(1);
    memcpy(&key[8], &af, 4);
    memcpy(&key[12], "x", 1);
    put_id_value(4, 4);
    EXPECT_EQ(9u, tarn_get_table_id(3, 1, "x"));
    put_id_value(0xFFFFFFF8u, 4);
    EXPECT_EQ(0u, tarn_get_table_id(3, 1, "x"));
    EXPECT_EQ(30u, tarn_get_table_id(3, 1, "m"));
    EXPECT_TRUE(captured().empty());
}

// The cell manager's list: a count whose 2-byte entries would pass 32 bits
// (from 0x80000000 on, twice the count wraps to a small number) is as much
// a count past the record's end as one just past it.
TEST_F(Limits, CellManagerCountWhoseSizePasses32Bits)
{
    load();
    std::vector<uint8_t> rec(532, 0);
    rec[521] = 1;
    for (uint32_t count : {4u, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFEu}) {
        SCOPED_TRACE(count);
        const uint32_t be = htonl(count);
        memcpy(&rec[522], &be, 4);
        tarntest::write_cell_mgr_bytes(rec);
        void *copy = nullptr;
        EXPECT_EQ(KVS_ERR_INVALID, tarn_read_cell_mgr_record(&copy));
        EXPECT_EQ(nullptr, copy);
        EXPECT_EQ(0u, tarn_get_cell_type());
    }
    const uint32_t three = htonl(3);
    memcpy(&rec[522], &three, 4);
    tarntest::write_cell_mgr_bytes(rec);
    EXPECT_EQ(1u, tarn_get_cell_type());
    EXPECT_TRUE(captured().empty());
}

// ---- names that share a prefix -----------------------------------------------------------

// Only the whole name "l2-vrf" is hidden: neither a name it begins with nor
// one that begins with it.
TEST_F(Limits, OnlyTheWholeHiddenNameIsHidden)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}, {"id": 2, "name": "l2-vr"},
                          {"id": 3, "name": "l2-vrf"}, {"id": 4, "name": "l2-vrf0"},
                          {"id": 5, "name": "l2-vrfl2-vrf"}, {"id": 6, "name": "L2-VRF"},
                          {"id": 7, "name": "l2-vrg"}]})");
    std::vector<std::string> names;
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 4, 5, 6, 7}), walk_contexts(&names));
    EXPECT_EQ((std::vector<std::string>{"default", "l2-vr", "l2-vrf0", "l2-vrfl2-vrf", "L2-VRF",
                                        "l2-vrg"}),
              names);
    EXPECT_EQ(3u, tarn_get_context_id("l2-vrf")) << "hidden from the walk only";
}

// The interface walk's filter is a whole-name comparison.
TEST_F(Limits, InterfaceFilterMatchesWholeNames)
{
    load(R"({"cell": 2, "cells": [1, 2],
             "contexts": [{"id": 3, "name": "re"}, {"id": 4, "name": "red"},
                          {"id": 5, "name": "redder"}],
             "interfaces": [{"ifindex": 10, "iod": 10, "name": "e10", "context": "re"},
                            {"ifindex": 11, "iod": 11, "name": "e11", "context": "red"},
                            {"ifindex": 12, "iod": 12, "name": "e12", "context": "redder"},
                            {"ifindex": 13, "iod": 13, "name": "e13", "context": "red"}]})");
    EXPECT_EQ((std::vector<uint32_t>{11, 13}), walk_interfaces("red"));
    EXPECT_EQ((std::vector<uint32_t>{10}), walk_interfaces("re"));
    EXPECT_EQ((std::vector<uint32_t>{12}), walk_interfaces("redder"));
    EXPECT_EQ((std::vector<uint32_t>{}), walk_interfaces("redde"));
    EXPECT_EQ((std::vector<uint32_t>{}), walk_interfaces(""));
    EXPECT_EQ((std::vector<uint32_t>{10, 11, 12, 13}), walk_interfaces(nullptr));
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(12, &info));
    EXPECT_EQ(5u, info.context_id);
    EXPECT_STREQ("redder", info.context_name);
}

// Keyed names: a name is its key, so one that shares a prefix is another
// record, up to the field's 32 characters.
TEST_F(Limits, KeyedNamesThatShareAPrefixAreDifferentRecords)
{
    load(R"({"contexts": [{"id": 3, "name": "red", "vpn_id": [1, 2, 3],
                           "tables": [{"id": 30, "af": 1, "name": "main"},
                                      {"id": 31, "af": 1, "name": "main2"}]},
                          {"id": 4, "name": "red2", "vpn_id": [4, 5, 6]}]})");
    EXPECT_EQ(3u, tarn_get_context_id("red"));
    EXPECT_EQ(4u, tarn_get_context_id("red2"));
    EXPECT_EQ(0u, tarn_get_context_id("re"));
    EXPECT_EQ(0u, tarn_get_context_id("red22"));
    EXPECT_EQ(30u, tarn_get_table_id(3, 1, "main"));
    EXPECT_EQ(31u, tarn_get_table_id(3, 1, "main2"));
    EXPECT_EQ(0u, tarn_get_table_id(3, 1, "mai"));
    tarn_vpnid_info_t vpn;
    ASSERT_EQ(1u, tarn_get_context_vpnid("red", &vpn));
    EXPECT_EQ(1u, vpn.w0);
    ASSERT_EQ(1u, tarn_get_context_vpnid("red2", &vpn));
    EXPECT_EQ(4u, vpn.w0);
    EXPECT_EQ(0u, tarn_get_context_vpnid("red22", &vpn));
    EXPECT_TRUE(captured().empty());
}

// ---- name sizes: 32 characters are kept, the 33rd is not -----------------------------------

TEST_F(Limits, TableAndVpnNamesAreKeyedByTheir32FirstCharacters)
{
    const std::string n32(32, 't'), v32 = std::string(31, 'v') + "w";
    load(R"({"contexts": [{"id": 3, "name": ")" + v32 + R"(", "vpn_id": [7, 8, 9],
                           "tables": [{"id": 30, "af": 1, "name": ")" + n32 + R"("}]}]})");
    EXPECT_EQ(30u, tarn_get_table_id(3, 1, n32.c_str()));
    EXPECT_EQ(30u, tarn_get_table_id(3, 1, (n32 + "X").c_str()));
    EXPECT_EQ(0u, tarn_get_table_id(3, 1, n32.substr(0, 31).c_str()));
    EXPECT_EQ(30u, tarn_context_get_table_id((v32 + "Z").c_str(), 1, (n32 + "Y").c_str()));
    tarn_vpnid_info_t vpn;
    ASSERT_EQ(1u, tarn_get_context_vpnid((v32 + "Q").c_str(), &vpn));
    EXPECT_EQ(7u, vpn.w0);
    EXPECT_EQ(0u, tarn_get_context_vpnid(v32.substr(0, 31).c_str(), &vpn));
    char buf[TARN_NAME_SIZE];
    EXPECT_EQ(n32, tarn_get_table_name(30, buf));
    EXPECT_EQ(v32, tarn_get_context_name(3, buf));
}

// ---- the configuration-change notice ---------------------------------------------------------

class ConfigLimits : public tarntest::DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        load(R"({"contexts": [{"id": 3, "name": "red"}]})");
        handle_ = bus_bind(4, -1, nullptr, "limits client");
        ASSERT_NE(BUS_HANDLE_NONE, handle_);
        service_ = bus_bind(4, -1, nullptr, "limits service");
        ASSERT_NE(BUS_HANDLE_NONE, service_);
        ASSERT_EQ(0, tarnhost_bus_subscribe(service_, 51222, 1));
        ASSERT_EQ(1u, tarn_register(handle_));
        tarnhost_capture_clear();
    }
    void TearDown() override
    {
        tarntest::reset_library();
        bus_unbind(handle_);
        bus_unbind(service_);
        DeviceTest::TearDown();
    }
    std::vector<uint8_t> received()
    {
        bus_msg_t *msg = tarnhost_bus_recv_ms(service_, 2000);
        if (msg == nullptr)
            return {};
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
        std::vector<uint8_t> bytes(p, p + len);
        bus_drop(service_, msg);
        return bytes;
    }
    uint32_t handle_ = BUS_HANDLE_NONE;
    uint32_t service_ = BUS_HANDLE_NONE;
};

// 31 characters reach the service whole; the 32nd never does.
TEST_F(ConfigLimits, TextsKeep31Characters)
{
    const std::string c31(31, 'c'), n31(31, 'n');
    ASSERT_EQ(1u, tarn_send_protocol_config_change_msg(1, n31.c_str(), 0, c31.c_str(), 0, nullptr));
    std::vector<uint8_t> m = received();
    ASSERT_EQ(76u, m.size());
    EXPECT_EQ(n31, reinterpret_cast<const char *>(&m[8]));
    EXPECT_EQ(c31, reinterpret_cast<const char *>(&m[41]));
    ASSERT_EQ(1u, tarn_send_protocol_config_change_msg(1, (n31 + "N").c_str(), 0,
                                                       (c31 + "C").c_str(), 0, nullptr));
    m = received();
    ASSERT_EQ(76u, m.size());
    EXPECT_EQ(n31, reinterpret_cast<const char *>(&m[8]));
    EXPECT_EQ(c31, reinterpret_cast<const char *>(&m[41]));
    EXPECT_EQ(0, m[39]);
    EXPECT_EQ(0, m[40]);
    EXPECT_EQ(0, m[72]);
    EXPECT_EQ(0, m[73]);
}

// The notice is one bus message: the most entries it can carry fill the
// bus's largest payload exactly; one more is refused by the bus and
// reported, and nothing is sent.
TEST_F(ConfigLimits, LargestNoticeFillsTheLargestPayload)
{
    const uint16_t most = static_cast<uint16_t>((BUS_MAX_PAYLOAD - 76) / 4);
    ASSERT_EQ(BUS_MAX_PAYLOAD, 76u + 4u * most);
    std::vector<uint32_t> entries(65535);
    for (size_t i = 0; i < entries.size(); ++i)
        entries[i] = static_cast<uint32_t>(i * 3 + 1);
    ASSERT_EQ(1u, tarn_send_protocol_config_change_msg(64, "x", 1, "red", most, entries.data()));
    const std::vector<uint8_t> m = received();
    ASSERT_EQ(BUS_MAX_PAYLOAD, m.size());
    uint16_t count = 0;
    memcpy(&count, &m[74], 2);
    EXPECT_EQ(most, count);
    uint32_t last = 0;
    memcpy(&last, &m[BUS_MAX_PAYLOAD - 4], 4);
    EXPECT_EQ(entries[most - 1], last);
    EXPECT_TRUE(captured().empty());

    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(64, "x", 1, "red", most + 1,
                                                       entries.data()));
    tarnhost_log_throttle_reset();
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(64, "x", 1, "red", 65535, entries.data()));
    const std::string line = std::string("<<%TARN-3-TARN_LIBBUS>> Error returned from "
                                         "bus_send(BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE), errno: ") +
                             "0x" + [] {
                                 char b[16];
                                 snprintf(b, sizeof b, "%08x", EMSGSIZE);
                                 return std::string(b);
                             }() + " (" + strerror(EMSGSIZE) +
                             ") in tarn_send_protocol_config_change_msg()";
    EXPECT_EQ((std::vector<std::string>{line, line}), captured());
    EXPECT_TRUE(received().empty());
}

}  // namespace
