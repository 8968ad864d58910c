// Library state and initialisation: the client record, the memory types,
// the debug switch and the cell check.

#include "core/state.h"

#include <string.h>
#include <strings.h>
#include <unistd.h>

#include "core/report.h"
#include "platform/alloctrack.h"
#include "platform/kvs.h"
#include "platform/supv.h"

extern "C" {

TARN_API tarn_clt_t *tarn_clt = nullptr;
TARN_API tarn_cache_t tarn_cache = {0, 0};
uint32_t tarn_clt_registered = 0;
uint32_t debug_enabled = 0;

}  // extern "C"

namespace {

struct MemType {
    uint32_t value;
    const char *name;
};

// Ends at the entry with an empty name.
const MemType kMemTypes[] = {
    {TARN_LIB_MEM_NONE, "TARN_LIB_MEM_NONE"},
    {TARN_LIB_MEM_TARN_CLT, "TARN_LIB_MEM_TARN_CLT"},
    {TARN_LIB_MEM_GYRE_CACHE, "TARN_LIB_MEM_GYRE_CACHE"},
    {TARN_LIB_MEM_GYRE_TPG, "TARN_LIB_MEM_GYRE_TPG"},
    {TARN_LIB_MEM_MAX, "TARN_LIB_MEM_MAX"},
    {0, ""},
};

}  // namespace

namespace tarn {

bool cell_check(const char *fn, uint32_t *cell_ix)
{
    const uint32_t cell = supv_get_cell_ctxt() & 0xffffu;
    if (cell < 1 || cell > 4) {
        tarn_report(&msg_error_TARN_CELL, "IS_CELL_IS_VALID()", fn);
        return false;
    }
    if (cell != 1) {
        tarn_report(&msg_error_TARN_CELL, "ctx range", fn);
        return false;
    }
    if (cell_ix != nullptr)
        *cell_ix = cell - 1;
    return true;
}

int32_t begin_init(const char *fn, uint32_t *cell_ix)
{
    if (!cell_check(fn, cell_ix))
        return 0;
    if (tarn_clt != nullptr && clt_of(*cell_ix)->initialized)
        return 1;
    tarn_api_alloctrack_init();
    tarn_api_init_clt_cache();
    if (tarn_clt == nullptr) {
        tarn_report(&msg_error_TARN_NOALLOC, "tarn_clt struct is NULL", fn);
        return 0;
    }
    return -1;
}

}  // namespace tarn

using tarn::clt_of;
using tarn::tarn_report;
using tarn::tarn_report_init;

extern "C" {

TARN_API const char *__tarn_api_mem_type_t_find(uint32_t value)
{
    for (const MemType *t = kMemTypes; t->name[0] != '\0'; ++t)
        if (t->value == value)
            return t->name;
    return nullptr;
}

TARN_API uint32_t __tarn_api_mem_type_t_str2enum(const char *name)
{
    if (name == nullptr)
        return 0;
    for (const MemType *t = kMemTypes; t->name[0] != '\0'; ++t)
        if (strcasecmp(t->name, name) == 0)
            return t->value;
    return 0;
}

TARN_API uint32_t tarn_api_alloctrack_init(void)
{
    const char *const names[4] = {
        __tarn_api_mem_type_t_find(TARN_LIB_MEM_NONE),
        __tarn_api_mem_type_t_find(TARN_LIB_MEM_TARN_CLT),
        __tarn_api_mem_type_t_find(TARN_LIB_MEM_GYRE_CACHE),
        __tarn_api_mem_type_t_find(TARN_LIB_MEM_GYRE_TPG),
    };
    alloctrack_init("Tarn", TARN_LIB_ALLOC_ID, names, 4);
    return 1;
}

TARN_API uint32_t tarn_api_alloctack_uninit(void)
{
    return alloctrack_uninit(TARN_LIB_ALLOC_ID);
}

TARN_API uint32_t tarn_api_debug_common(void *handle, uint32_t kind,
                                        uint32_t enable)
{
    if (handle == nullptr)
        return 0;
    if (enable) {
        dbgwrap_library_dbg_enable(TARN_LIB_DBG_INDEX, kind, handle);
        debug_enabled = 1;
    } else {
        debug_enabled = 0;
        dbgwrap_library_dbg_disable(TARN_LIB_DBG_INDEX, kind, handle);
    }
    return 1;
}

TARN_API uint32_t tarn_api_debug(void *handle, uint32_t enable)
{
    return tarn_api_debug_common(handle, 1, enable);
}

TARN_API uint32_t tarn_get_cell_ctx(uint32_t *cell_ix)
{
    return tarn::cell_check("tarn_get_cell_ctx", cell_ix) ? 1 : 0;
}

TARN_API uint32_t tarn_api_init_clt_cache(void)
{
    if (tarn_clt != nullptr)
        return 1;
    // One record: only cell 1 is served.
    tarn_clt = static_cast<tarn_clt_t *>(alloctrack_alloc(
        TARN_LIB_ALLOC_ID, TARN_LIB_MEM_TARN_CLT, sizeof(tarn_clt_t)));
    if (tarn_clt != nullptr) {
        memset(tarn_clt, 0, sizeof(tarn_clt_t));
        return 1;
    }
    tarn_report(&msg_error_TARN_LIB_NOMEM, "tarn_clt", "tarn_api_init_clt_cache");
    return 0;
}

TARN_API uint32_t tarn_clt_initialized(void)
{
    if (tarn_clt != nullptr)
        return 1;
    tarn_report(&msg_error_TARN_NOALLOC, "tarn_clt struct is NULL",
                "tarn_clt_initialized");
    return 0;
}

TARN_API uint32_t tarn_api_init(void)
{
    uint32_t ix = 0;
    const int32_t early = tarn::begin_init("tarn_api_init", &ix);
    if (early >= 0)
        return static_cast<uint32_t>(early);
    uint32_t deferred = 0;
    if (!tarn_init_clt_kvs_uri(ix, &deferred)) {
        // Without a running configuration the caller is told all is well
        // and comes back later: nothing is open and `initialized` stays 0.
        if (deferred)
            return 1;
        tarn_report_init(&msg_error_TARN_API_FAILED, "%s:tarn_init_clt_kvs_uri",
                         "tarn_api_init", "tarn_api_init");
        return 0;
    }
    tarn_clt_t *clt = clt_of(ix);
    const uint32_t rc = kvs_open(clt->kvs, 1, 0, 0, 0);
    if (rc != 0) {
        tarn_report(&msg_error_TARN_KVS_OPEN, static_cast<int>(ix + 1),
                    clt->kvs, rc, syserr2str(rc), "tarn_open_one_kvs",
                    static_cast<int>(getpid()));
        syslog_backtrace("tarn_open_one_kvs", 0);
        return 0;
    }
    const uint32_t cell_type = tarn_get_cell_type();
    if (tarn_clt == nullptr) {
        tarn_report_init(&msg_error_TARN_API_FAILED, "%s:tarn_init_cell_type",
                         "tarn_api_init", "tarn_api_init");
        return 0;
    }
    clt = clt_of(ix);
    clt->cell_type = cell_type;
    clt->initialized = 1;
    clt->cache_enabled = 0;
    return 1;
}

TARN_API uint32_t tarn_api_init_internal(void)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_api_init_internal", &ix))
        return 0;
    tarn_api_alloctrack_init();
    tarn_api_init_clt_cache();
    uint32_t deferred = 0;
    if (!tarn_init_clt_kvs_uri(ix, &deferred))
        return deferred ? 1 : 0;
    const uint32_t cell_type = tarn_get_cell_type();
    clt_of(ix)->cell_type = cell_type;
    clt_of(ix)->initialized = 1;
    return 1;
}

TARN_API void tarn_api_close(void)
{
    if (tarn_clt == nullptr)
        return;
    uint32_t ix = 0;
    if (!tarn_get_cell_ctx(&ix))
        return;
    tarn_clt_t *clt = clt_of(ix);
    if (!clt->initialized)
        return;
    kvs_close(clt->kvs);
    clt->initialized = 0;
    tarn_deregister();
    memset(clt, 0, sizeof(*clt));
}

}  // extern "C"
