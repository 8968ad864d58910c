// Interface-to-context lookups and the walk over interface bindings.

#include <stdio.h>
#include <string.h>

#include "platform/kpipe.h"
#include "platform/nic.h"
#include "query/frame.h"

using namespace tarn;

namespace {

char g_if_context_name_buf[TARN_NAME_SIZE];
const char kDefaultContext[] = "default";
const uint32_t kDefaultContextId = 1;
const char kManagementContext[] = "management";

}  // namespace

extern "C" {

// Checks in its own order: the cell-type short cut needs a record but not
// an initialised one.
TARN_API uint32_t tarn_if_get_context_info(uint32_t ifindex,
                                           tarn_if_context_info_t *info)
{
    static const char fn[] = "tarn_if_get_context_info";
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!cell_check(fn, &ix))
        return 0;
    if (tarn_clt == nullptr) {
        tarn_report(&msg_error_TARN_LIBINIT, "if context info");
        return 0;
    }
    tarn_clt_t *clt = clt_of(ix);
    if (clt->cell_type) {
        info->context_id = kDefaultContextId;
        kpipe_strcpy(info->context_name, kDefaultContext, TARN_NAME_SIZE);
        return 1;
    }
    if (!clt->initialized) {
        tarn_report(&msg_error_TARN_LIBINIT, "if context info");
        return 0;
    }
    TarnKey key(TARN_KVS_KIND_IF_CONTEXT);
    key.put_u32(4, ifindex);
    char name[TARN_NAME_SIZE];
    uint32_t id;
    if (nic_is_mgmtether(ifindex)) {
        // The management interface has no binding record to read.
        id = tarn_get_context_id(kManagementContext);
        kpipe_strcpy(name, kManagementContext, sizeof name);
    } else {
        kvs_datum_t value;
        if (!read<100>(ix, key, &value, fn, [ifindex](char *buf, size_t n) {
                snprintf(buf, n, "%s", nic_get_if_name(ifindex));
            }))
            return 0;
        tarn_vname_t vname;
        if (!decode(tarn_vname_to_struct, value, &vname, "tarn_vname_to_struct()", fn))
            return 0;
        kpipe_strcpy(name, vname.name, sizeof name);
        id = tarn_get_context_id(name);
    }
    // An id of 0 (the name has no id record) still answers 1.
    info->context_id = id;
    kpipe_strcpy(info->context_name, name, TARN_NAME_SIZE);
    return 1;
}

TARN_API uint32_t tarn_is_if_cli_ready(uint32_t ifindex)
{
    tarn_if_context_info_t info;
    return tarn_if_get_context_info(ifindex, &info) != 0 ? 1 : 0;
}

TARN_API char *tarn_if_get_context_name(uint32_t ifindex, char *buf)
{
    char *dst = buf != nullptr ? buf : g_if_context_name_buf;
    tarn_if_context_info_t info;
    if (tarn_if_get_context_info(ifindex, &info))
        kpipe_strcpy(dst, info.context_name, TARN_NAME_SIZE);
    else
        kpipe_strcpy(dst, "<unknown>", TARN_NAME_SIZE);
    return dst;
}

TARN_API uint32_t tarn_if_get_context_id(uint32_t ifindex)
{
    tarn_if_context_info_t info;
    return tarn_if_get_context_info(ifindex, &info) ? info.context_id : 0;
}

TARN_API uint32_t tarn_is_if_usable(uint32_t ifindex)
{
    const uint32_t context_id = tarn_if_get_context_id(ifindex);
    if (context_id == 0)
        return 0;
    tarn_context_info_t context;
    if (!tarn_get_context_info(context_id, &context))
        return 0;
    return context.state == 2 ? 1 : 0;
}

// Knows nothing of the management interface or of the cell type: only
// interfaces with a binding record are returned.
TARN_API uint32_t tarn_get_next_if_context_info(uint32_t ifindex,
                                                const char *context_name,
                                                tarn_if_context_info_t *info)
{
    static const char fn[] = "tarn_get_next_if_context_info";
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "if context info", &ix))
        return 0;
    kvs_datum_t key, value;
    bool more = walk_start(ix, TARN_KVS_KIND_IF_CONTEXT, ifindex, &key, &value, fn);
    // Records of later kinds are passed over to the end at once.
    bool jumped = false;
    const auto step = [&] {
        if (!jumped && past_kind(key, TARN_KVS_KIND_IF_CONTEXT)) {
            jumped = true;
            return walk_to_end(clt_of(ix)->kvs, &key, &value);
        }
        return walk_next(ix, &key, &value);
    };
    for (; more; more = step()) {
        uint32_t kind = 0, found = 0;
        if (!load_be32(key.data, key.len, 0, &kind) || kind != TARN_KVS_KIND_IF_CONTEXT ||
            !load_be32(key.data, key.len, 4, &found))
            continue;
        tarn_vname_t vname;
        if (!decode(tarn_vname_to_struct, value, &vname, "tarn_vname_to_struct()", fn))
            return 0;
        if (context_name != nullptr && strcmp(context_name, vname.name) != 0)
            continue;
        info->context_id = tarn_get_context_id(vname.name);
        kpipe_strcpy(info->context_name, vname.name, TARN_NAME_SIZE);
        return found;
    }
    return 0;
}

}  // extern "C"
