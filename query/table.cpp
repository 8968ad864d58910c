// Table lookups: ids, records and names of routing tables.

#include <stdio.h>

#include "platform/kpipe.h"
#include "query/frame.h"

using namespace tarn;

namespace {
char g_table_name_buf[TARN_NAME_SIZE];
}

extern "C" {

TARN_API uint32_t tarn_get_table_id(uint32_t context_id, uint32_t af,
                                    const char *table_name)
{
    static const char fn[] = "tarn_get_table_id";
    uint32_t ix = 0;
    if (!enter(fn, "table id", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_TABLE_ID);
    key.put_u32(4, context_id);
    key.put_u32(8, af);  // stored as given, not range-checked
    key.put_name(12, table_name);
    kvs_datum_t value;
    if (!read<255>(ix, key, &value, fn, [&](char *buf, size_t n) {
            snprintf(buf, n, "context id %9lu af %s name %s",
                     static_cast<unsigned long>(context_id), tarn_af_ix2str(af),
                     printable(table_name));
        }))
        return 0;
    uint32_t id = 0;
    return first_tlv_id(value, &id) ? id : 0;
}

TARN_API uint32_t tarn_context_get_table_id(const char *context_name, uint32_t af,
                                            const char *table_name)
{
    const uint32_t context_id = tarn_get_context_id(context_name);
    return context_id ? tarn_get_table_id(context_id, af, table_name) : 0;
}

TARN_API uint32_t tarn_if_get_table_id(uint32_t ifindex, uint32_t af,
                                       const char *table_name)
{
    const uint32_t context_id = tarn_if_get_context_id(ifindex);
    return context_id ? tarn_get_table_id(context_id, af, table_name) : 0;
}

// Unlike the context record, table id 0 is not refused up front: it is
// looked up like any other and ends as an absent key.
TARN_API uint32_t tarn_get_table_info(uint32_t table_id, tarn_table_info_t *info)
{
    static const char fn[] = "tarn_get_table_info";
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "table info", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_TABLE_INFO);
    key.put_u32(4, table_id);
    kvs_datum_t value;
    if (!read<100>(ix, key, &value, fn, [table_id](char *buf, size_t n) {
            snprintf(buf, n, "table_id %lu", static_cast<unsigned long>(table_id));
        }))
        return 0;
    return decode(tarn_table_info_to_struct, value, info, "tarn_table_info_to_struct()",
                  fn) ? 1 : 0;
}

TARN_API char *tarn_get_table_name(uint32_t table_id, char *buf)
{
    char *dst = buf != nullptr ? buf : g_table_name_buf;
    tarn_table_info_t info;
    if (tarn_get_table_info(table_id, &info))
        kpipe_strcpy(dst, info.name, TARN_NAME_SIZE);
    else
        kpipe_strcpy(dst, "<unknown>", TARN_NAME_SIZE);
    return dst;
}

// The table's name goes to the first buffer and the VRF's to the second,
// the reverse of the operation's name; callers rely on that order.
TARN_API uint32_t tarn_get_vrf_name_table_name(uint32_t table_id,
                                               char *table_name_buf,
                                               char *vrf_name_buf)
{
    if (table_id == 0 || table_name_buf == nullptr || vrf_name_buf == nullptr)
        return 0;
    kpipe_strcpy(table_name_buf, "<unknown>", TARN_NAME_SIZE);
    kpipe_strcpy(vrf_name_buf, "<unknown>", TARN_NAME_SIZE);
    tarn_table_info_t table;
    if (!tarn_get_table_info(table_id, &table))
        return 0;
    kpipe_strcpy(table_name_buf, table.name, TARN_NAME_SIZE);
    tarn_context_info_t context;
    if (!tarn_get_context_info(table.context_id, &context))
        return 0;
    kpipe_strcpy(vrf_name_buf, context.name, TARN_NAME_SIZE);
    return 1;
}

}  // extern "C"
