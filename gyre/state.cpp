// Gyre client initialisation, registration and routing of messages.

#include <string.h>

#include "core/bus_options.h"
#include "core/report.h"
#include "core/state.h"
#include "gyre/internal.h"
#include "platform/kvs.h"
#include "platform/supv.h"

using tarn::clt_of;
using tarn::tarn_report;

extern "C" {

uint32_t gyre_api_is_initialized = 0;
uint32_t gyre_cache_enabled = 0;
uint8_t gyre_ha_store[GYRE_HA_STORE_SIZE];
kpipe_kvs_handle_t *gyre_kvs_handle = nullptr;


}  // extern "C"

namespace {

const char kGyreKvsName[] = "gyre_kvs_info";
constexpr uint32_t kGyreKvsMode = 2;

// The notification opcodes; the two between 51205 and 51208 are not Gyre's.
const uint32_t kGyreOpcodes[] = {51205, 51208, 51209, 51210, 51211,
                                 51212, 51213, 51214, 51215};

static_assert(sizeof(kpipe_kvs_handle_t) <= GYRE_HA_STORE_SIZE, "handle fits");

}  // namespace

namespace gyre {

const uint8_t *payload(const bus_msg_t *msg, uint32_t *len)
{
    *len = 0;
    if (msg == nullptr)
        return nullptr;
    const void *p = bus_payload_get(msg, len);
    if (p == nullptr)
        *len = 0;
    return static_cast<const uint8_t *>(p);
}

bool ensure_init() { return gyre_api_is_initialized || gyre_api_init(); }

}  // namespace gyre

extern "C" {

uint32_t gyre_is_api_initialized(void) { return gyre_api_is_initialized; }

TARN_API uint32_t gyre_api_init(void)
{
    if (gyre_is_api_initialized())
        return 1;
    tarn_api_alloctrack_init();
    tarn_api_init_clt_cache();
    if (!tarn_clt_initialized())
        return 0;
    const char *uri = supv_uri_complete(supv_running_cfg_uri_get(), 0, kGyreKvsName);
    if (uri == nullptr)
        return 0;
    if (!kpipe_kvs_open(uri, 0)) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kpipe_kvs_open", "gyre_api_init");
        return 0;
    }
    gyre_kvs_handle = reinterpret_cast<kpipe_kvs_handle_t *>(gyre_ha_store);
    kpipe_strcpy(gyre_kvs_handle->name, kGyreKvsName, sizeof gyre_kvs_handle->name);
    kpipe_strcpy(gyre_kvs_handle->uri, uri, sizeof gyre_kvs_handle->uri);
    gyre_kvs_handle->mode = kGyreKvsMode;
    gyre_kvs_handle->w0 = 0;
    gyre_kvs_handle->w1 = 0;
    gyre_kvs_handle->w2 = 0;
    gyre_api_is_initialized = 1;
    return 1;
}

// For the service's own processes, which hold the data themselves.
TARN_API uint32_t gyre_api_init_internal(void)
{
    gyre_api_is_initialized = 1;
    return 1;
}

TARN_API uint32_t gyre_register(uint32_t bus_handle)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("gyre_register", &ix))
        return 0;
    if (!gyre_is_api_initialized() && !gyre_api_init())
        return 0;
    if (bus_handle == BUS_HANDLE_NONE || !tarn_clt_initialized())
        return 0;
    clt_of(ix)->bus_handle = bus_handle;
    tarn_clt_registered = 1;
    uint32_t rc = 0;
    for (uint32_t opcode : kGyreOpcodes) {
        rc = tarn::set_receive_option(bus_handle, opcode);
        if (rc != 0)
            tarn_report(&msg_error_TARN_BUS, "bus_register", rc, syserr2str(rc),
                        "gyre_register");
    }
    // Only the last opcode decides the result.
    return rc == 0 ? 1 : 0;
}

TARN_API uint32_t gyre_deregister(uint32_t bus_handle)
{
    uint32_t rc = 0;
    for (uint32_t opcode : kGyreOpcodes)
        rc = tarn::clear_receive_option(bus_handle, opcode);
    return rc;
}

TARN_API int32_t gyre_dispatch(bus_msg_t *msg)
{
    if (gyre_cache_enabled)
        return tarn_dispatch(msg);
    // A requester never waits on a process without a cache.
    gyre_cache_disabled_resp(msg);
    return -1;
}

TARN_API void gyre_api_close(void)
{
    uint32_t ix = 0;
    if (!tarn_get_cell_ctx(&ix))
        return;
    if (!gyre_is_api_initialized())
        return;
    if (gyre_cache_enabled)
        gyre_disable_cache_mode();
    if (tarn_clt != nullptr)
        gyre_deregister(clt_of(ix)->bus_handle);
    if (gyre_kvs_handle != nullptr)
        kpipe_kvs_close(gyre_kvs_handle->uri);
    gyre_api_is_initialized = 0;
}

TARN_API uint32_t gyre_api_debug(void *handle, uint32_t enable)
{
    return tarn_api_debug_common(handle, 2, enable);
}

}  // extern "C"
