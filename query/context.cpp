// Context lookup by name and by id, and the walk over all contexts.

#include <stdio.h>

#include "platform/kpipe.h"
#include "query/frame.h"

using namespace tarn;

namespace {
char g_context_name_buf[TARN_NAME_SIZE];
const char kHiddenContext[] = "l2-vrf";
}  // namespace

extern "C" {

TARN_API uint32_t tarn_get_context_id(const char *name)
{
    static const char fn[] = "tarn_get_context_id";
    uint32_t ix = 0;
    if (!enter(fn, "context id", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_CONTEXT_NAME);
    key.put_name(4, name);
    kvs_datum_t value;
    if (!read<TARN_KVS_URI_SIZE>(ix, key, &value, fn, [name](char *buf, size_t n) {
            snprintf(buf, n, "%s", printable(name));
        }))
        return 0;
    uint32_t id = 0;
    return first_tlv_id(value, &id) ? id : 0;
}

TARN_API uint32_t tarn_get_context_info(uint32_t context_id,
                                        tarn_context_info_t *info)
{
    static const char fn[] = "tarn_get_context_info";
    if (context_id == 0)
        return 0;
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "context info", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_CONTEXT_INFO);
    key.put_u32(4, context_id);
    kvs_datum_t value;
    if (!read<100>(ix, key, &value, fn, [context_id](char *buf, size_t n) {
            snprintf(buf, n, "context id %9lu", static_cast<unsigned long>(context_id));
        }))
        return 0;
    return decode(tarn_context_info_to_struct, value, info,
                  "tarn_context_info_to_struct()", fn) ? 1 : 0;
}

TARN_API char *tarn_get_context_name(uint32_t context_id, char *buf)
{
    char *dst = buf != nullptr ? buf : g_context_name_buf;
    tarn_context_info_t info;
    if (tarn_get_context_info(context_id, &info))
        kpipe_strcpy(dst, info.name, TARN_NAME_SIZE);
    else
        kpipe_strcpy(dst, "<unknown>", TARN_NAME_SIZE);
    return dst;
}

TARN_API uint32_t tarn_get_next_context_info(uint32_t context_id,
                                             tarn_context_info_t *info)
{
    static const char fn[] = "tarn_get_next_context_info";
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "next context info", &ix))
        return 0;
    kvs_datum_t key, value;
    bool more = walk_start(ix, TARN_KVS_KIND_CONTEXT_INFO, context_id, &key, &value, fn);
    // No upper bound: records of later kinds are passed over to the end,
    // at once from the first of them (nothing after it can match).
    bool jumped = false;
    const auto step = [&] {
        if (!jumped && past_kind(key, TARN_KVS_KIND_CONTEXT_INFO)) {
            jumped = true;
            return walk_to_end(clt_of(ix)->kvs, &key, &value);
        }
        return walk_next(ix, &key, &value);
    };
    for (; more; more = step()) {
        uint32_t kind = 0, id = 0;
        if (!load_be32(key.data, key.len, 0, &kind) || kind != TARN_KVS_KIND_CONTEXT_INFO ||
            !load_be32(key.data, key.len, 4, &id))
            continue;
        if (!decode(tarn_context_info_to_struct, value, info,
                    "tarn_context_info_to_struct()", fn))
            return 0;
        // Hidden, though `info` already holds it.
        if (memcmp(info->name, kHiddenContext, sizeof kHiddenContext) == 0)
            continue;
        return id;
    }
    return 0;
}

}  // extern "C"
