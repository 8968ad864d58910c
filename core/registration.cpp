// Registration of the caller's bus handle for the service's notifications.

#include "core/bus_options.h"
#include "core/report.h"
#include "core/state.h"
#include "platform/alloctrack.h"
#include "platform/bus.h"

using tarn::clt_of;
using tarn::tarn_report;

namespace tarn {

uint32_t set_receive_option(uint32_t handle, uint32_t opcode)
{
    const uint32_t old = bus_options_get(handle, opcode);
    return bus_options_set(handle, opcode, (old & 0xFFEFu) | BUS_OPT_RECEIVE);
}

uint32_t clear_receive_option(uint32_t handle, uint32_t opcode)
{
    const uint32_t old = bus_options_get(handle, opcode);
    return bus_options_set(handle, opcode, old & 0xFFEFu);
}

}  // namespace tarn

extern "C" {

TARN_API uint32_t tarn_register(uint32_t bus_handle)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_register", &ix))
        return 0;
    // Registering before initialising is allowed.
    if (tarn_clt == nullptr) {
        tarn_api_alloctrack_init();
        tarn_api_init_clt_cache();
    }
    if (bus_handle == BUS_HANDLE_NONE || tarn_clt == nullptr)
        return 0;
    clt_of(ix)->bus_handle = bus_handle;
    const uint32_t rc = tarn::set_receive_option(bus_handle, BUS_OPC_TARN_REGISTER);
    if (rc != 0)
        tarn_report(&msg_error_TARN_BUS, "bus_register", rc, syserr2str(rc),
                    "tarn_register");
    // Registered even when the option could not be set: the caller sees 0.
    tarn_clt_registered = 1;
    return rc == 0 ? 1 : 0;
}

TARN_API uint32_t tarn_deregister(void)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_deregister", &ix))
        return 0;
    if (tarn_clt == nullptr || clt_of(ix)->bus_handle == BUS_HANDLE_NONE)
        return 0;
    tarn_disable_cache_mode();
    if (tarn_clt_registered)
        tarn::clear_receive_option(clt_of(ix)->bus_handle, BUS_OPC_TARN_REGISTER);
    // The handle stays in the record; tarn_api_close clears it.
    tarn_clt_registered = 0;
    return 1;
}

}  // extern "C"
