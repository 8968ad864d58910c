// Notification dispatch: every message the caller's loop receives is
// offered to the Gyre client first, then to Tarn's attribute change.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <tarn/gyre.h>

#include "core/report.h"
#include "core/state.h"
#include "platform/bus.h"

using tarn::clt_of;
using tarn::tarn_debug;
using tarn::tarn_report;

namespace {

enum : uint16_t {
    kAttrAsFormat = 1,
    kAttrTopologyFtags = 2,
    kAttrCacheDelete = 3,
    kAttrCacheDump = 4,
};

constexpr uint32_t kAsFormatOffset = 24;

}  // namespace

extern "C" {

// A null message is no attribute change.
TARN_API int32_t tarn_dispatch_internal(struct bus_msg *msg)
{
    if (msg == nullptr || bus_opc_get(msg) != BUS_OPC_TARN_ATTR_CHANGE)
        return -1;
    return tarn_process_attr_change(msg);
}

// A payload too short for the offsets its kind reads counts as none, and so
// does a null message.
TARN_API int32_t tarn_process_attr_change(struct bus_msg *msg)
{
    static const char fn[] = "tarn_process_attr_change";
    uint32_t ix = 0;
    if (!tarn::cell_check(fn, &ix))
        return 0;
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
    uint16_t kind = 0;
    if (p != nullptr && len >= 4)
        memcpy(&kind, p + 2, sizeof kind);
    if (p == nullptr || len < 4 || (kind == kAttrAsFormat && len < kAsFormatOffset + 4)) {
        char text[100];
        snprintf(text, sizeof text, "%s", "Invalid Payload");
        tarn_report(&msg_error_TARN_LIBBUS, text, 0u, "", fn);
        return -1;
    }
    const uint32_t handle = tarn_clt != nullptr ? clt_of(ix)->bus_handle : BUS_HANDLE_NONE;
    int32_t result = 1;
    switch (kind) {
    case kAttrAsFormat:
        memcpy(&tarn_cache.as_format, p + kAsFormatOffset, sizeof tarn_cache.as_format);
        break;
    case kAttrTopologyFtags:
        gyre_cache_delete_topo_ftag(msg);
        break;
    case kAttrCacheDelete:
        gyre_cache_delete_info();
        break;
    case kAttrCacheDump:
        // The dump handler answers and disposes of the request itself; any
        // other result of it is this call's result, after the drop below.
        result = gyre_dump_cache_info(handle, msg);
        if (result == 1)
            return 1;
        break;
    default:
        break;  // other kinds are ignored
    }
    if (bus_drop(handle, msg) == -1) {
        const int err = errno;
        tarn_report(&msg_error_TARN_BUS, "bus_drop", static_cast<uint32_t>(err),
                    syserr2str(static_cast<uint32_t>(err)), fn);
    }
    return result;
}

// An opcode neither client knows is returned undropped: the caller keeps it.
TARN_API int32_t tarn_dispatch(struct bus_msg *msg)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_dispatch", &ix))
        return 0;
    if (!tarn_clt_registered || msg == nullptr)
        return -1;
    const uint32_t opcode = bus_opc_get(msg);
    tarn_debug("Received BUS message %s opcode: %d msg_id: 0x%x\n", bus_opc_name_get(opcode),
               static_cast<int>(opcode), bus_msg_id_get(msg));
    const int32_t gyre = gyre_dispatch_internal(msg);
    if (gyre != -1)
        return gyre;
    return tarn_dispatch_internal(msg);
}

}  // extern "C"
