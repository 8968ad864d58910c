// Client cache mode: a registered client keeps service attributes locally,
// refreshed by the attribute-change notification.

#include "core/bus_options.h"
#include "core/report.h"
#include "core/state.h"
#include "platform/bus.h"

using tarn::clt_of;
using tarn::tarn_report;

extern "C" {

TARN_API uint32_t tarn_cache_is_enabled(void)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_cache_is_enabled", &ix))
        return 0;
    // Without a record nothing can be enabled.
    if (tarn_clt == nullptr)
        return 0;
    return clt_of(ix)->cache_enabled;
}

TARN_API uint32_t tarn_enable_cache_mode(uint32_t features)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_enable_cache_mode", &ix))
        return 0;
    if (!tarn_clt_registered || tarn_clt == nullptr) {
        char text[100];
        snprintf(text, sizeof text, "%s", "Client Unregistered");
        tarn_report(&msg_error_TARN_LIBBUS, text, 0u, "", "tarn_enable_cache_mode");
        return 0;
    }
    tarn_clt_t *clt = clt_of(ix);
    uint32_t option_rc = 0;
    if (!clt->cache_enabled) {
        tarn_cache.tracked_mask = 0;
        tarn_cache.as_format = 0;
        option_rc = tarn::set_receive_option(clt->bus_handle, BUS_OPC_TARN_ATTR_CHANGE);
        if (option_rc != 0)
            tarn_report(&msg_error_TARN_BUS, "bus_register", option_rc,
                        syserr2str(option_rc), "tarn_enable_cache_mode");
        clt->cache_enabled = 1;
    }
    if ((features & 1u) && !tarn_refresh_as_format_info()) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "tarn_refresh_as_format_info()",
                    "tarn_enable_cache_mode");
        tarn_cache.tracked_mask |= features;
        return 0;
    }
    tarn_cache.tracked_mask |= features;
    return option_rc == 0 ? 1 : 0;
}

TARN_API uint32_t tarn_disable_cache_mode(void)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_disable_cache_mode", &ix))
        return 0;
    if (!tarn_cache_is_enabled())
        return 1;
    tarn::clear_receive_option(clt_of(ix)->bus_handle, BUS_OPC_TARN_ATTR_CHANGE);
    tarn_cache.tracked_mask = 0;
    tarn_cache.as_format = 0;
    clt_of(ix)->cache_enabled = 0;
    return 1;
}

}  // extern "C"
