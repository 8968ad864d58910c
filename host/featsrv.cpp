// The feature-server publisher library: attaches a publishing process to
// the databases it publishes into.

#include <string.h>

#include "host/tarnhost.h"
#include "platform/featsrv.h"
#include "platform/kvs.h"
#include "platform/supv.h"

extern "C" uint32_t featsrv_kvs_publisher_lib_init(
    const featsrv_kvs_params_t *params)
{
    uint32_t status;
    if (tarnhost_fault_hit("featsrv_kvs_publisher_lib_init", &status))
        return status;
    if (params == nullptr || (params->count != 0 && params->entries == nullptr))
        return KVS_ERR_INVALID;
    const char *running = supv_running_cfg_uri_get();
    if (running == nullptr)
        return KVS_ERR_NOT_OPEN;
    for (uint32_t i = 0; i < params->count; ++i) {
        const featsrv_kvs_entry_t &e = params->entries[i];
        if (e.name == nullptr)
            return KVS_ERR_INVALID;
        const char *uri = supv_uri_complete(running, 0, e.name);
        if (uri == nullptr)
            return KVS_ERR_BAD_URI;
        uint32_t rc = kvs_open(uri, e.mode, 0, 0, 0);
        if (rc != KVS_OK && rc != KVS_ERR_ALREADY_OPEN)
            return rc;
    }
    return 0;
}
