// The descriptor tables hold their final contents before any constructor
// runs: a function in this executable's .preinit_array (run after libtarn is
// loaded and relocated, before libtarn's or this program's initialisers)
// copies every table's head and descriptors, and the test later finds the
// copies equal to the tables, with the initialiser pointers those of the
// named default initialisers.  A table that needed a dynamic initialiser
// would have been copied half-built.
//
// Built as position-independent code, not as a position-independent
// executable, so that the tables are read through the GOT in libtarn itself
// rather than from copies that copy relocations would put in this program.

#include <dlfcn.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "table_list.h"

using tabletest::kTableCount;
using tabletest::kTables;

namespace {

constexpr size_t kMaxBytes = sizeof(tlvkit_table_head_t) + 26 * sizeof(tlvkit_field_t);

struct snapshot {
    const tlvkit_table_t *at;
    size_t bytes;
    unsigned char copy[kMaxBytes];
};

const tlvkit_table_t *const kAddresses[] = {
    &tarn_store_if_data_tbl, &tarn_store_svr_data_tbl, &tarn_store_vrf_data_tbl,
    &tarn_table_info_tbl, &tarn_context_info_tbl, &tarn_vname_tbl, &tarn_tname_tbl,
    &tarn_if_table_info_tbl, &tarn_soo_info_tbl, &tarn_vpnid_info_tbl,
    &tarn_rt_limits_info_tbl, &tarn_as_format_tbl, &tarn_store_data_tbl,
    &tarn_store_tib_data_tbl, &tarn_tlv_if_data_tbl, &tarn_store_if_kvs_data_tbl,
    &tarn_store_cfg_tbl, &tarn_store_kvs_ctx_data_tbl, &gyre_tpg_vlan_info_tbl,
    &gyre_if_vlan_info_tbl, &gyre_ftag_info_tbl, &gyre_kvs_vlan_info_tbl,
    &gyre_store_ftag_data_tbl,
};
static_assert(sizeof kAddresses / sizeof kAddresses[0] == kTableCount, "one address a table");

// Plain data only: this storage is zero before anything runs.
snapshot g_before[kTableCount];
bool g_preinit_ran;
bool g_constructor_ran_first;
bool g_constructor_ran;

void copy_tables(int, char **, char **)
{
    g_preinit_ran = true;
    g_constructor_ran_first = g_constructor_ran;
    for (unsigned i = 0; i < kTableCount; ++i) {
        snapshot &s = g_before[i];
        s.at = kAddresses[i];
        s.bytes = sizeof(tlvkit_table_head_t) + kTables[i].descriptors * sizeof(tlvkit_field_t);
        memcpy(s.copy, s.at, s.bytes);
    }
}

__attribute__((used, section(".preinit_array"))) void (*const g_copy_tables)(int, char **,
                                                                             char **) = copy_tables;

__attribute__((constructor)) void mark_constructor() { g_constructor_ran = true; }

uintptr_t address_of(const char *name)
{
    if (*name == '\0')
        return 0;
    return reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, name));
}

TEST(TablesBeforeConstructors, CopiedBeforeAnyConstructorRan)
{
    EXPECT_TRUE(g_preinit_ran);
    EXPECT_FALSE(g_constructor_ran_first);
    EXPECT_TRUE(g_constructor_ran);
}

TEST(TablesBeforeConstructors, EveryTableWasFinalBeforeConstructors)
{
    for (unsigned i = 0; i < kTableCount; ++i) {
        SCOPED_TRACE(kTables[i].table);
        const snapshot &s = g_before[i];
        ASSERT_EQ(kAddresses[i], s.at);
        // The same object as the one exported under the table's name.
        EXPECT_EQ(reinterpret_cast<uintptr_t>(s.at), address_of(kTables[i].table));
        // Byte for byte what it is now.
        EXPECT_EQ(0, memcmp(s.copy, s.at, s.bytes));
        tlvkit_table_head_t head;
        memcpy(&head, s.copy, sizeof head);
        ASSERT_NE(nullptr, head.name);
        EXPECT_STREQ(kTables[i].type, head.name);
        const uintptr_t init = reinterpret_cast<uintptr_t>(reinterpret_cast<void *>(head.init));
        EXPECT_EQ(address_of(kTables[i].init), init);
        if (*kTables[i].init != '\0') {
            EXPECT_NE(0u, init);
        }
        tlvkit_field_t last;
        memcpy(&last, s.copy + s.bytes - sizeof last, sizeof last);
        EXPECT_TRUE(TLVKIT_FIELD_IS_END(&last));
        for (unsigned k = 0; k + 1 < kTables[i].descriptors; ++k) {
            tlvkit_field_t f;
            memcpy(&f, s.copy + sizeof head + k * sizeof f, sizeof f);
            EXPECT_FALSE(TLVKIT_FIELD_IS_END(&f)) << k;
            EXPECT_EQ(TLVKIT_FIELD_MARK, f.mark) << k;
        }
    }
}

}  // namespace
