// The protocol configuration-change notice: the one query-side operation
// that writes, a fire-and-forget message to the Tarn service.

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "core/bus_options.h"
#include "core/report.h"
#include "core/state.h"
#include "platform/bus.h"
#include "platform/kpipe.h"

using namespace tarn;

namespace {
constexpr uint32_t kHeaderSize = 76;
// Both texts are cut to 31 characters, one less than elsewhere.
constexpr size_t kTextLimit = 32;
}  // namespace

extern "C" {

// The order of the checks is part of the contract: arguments, then
// registration, then the cell.
TARN_API uint32_t tarn_send_protocol_config_change_msg(uint32_t type, const char *name,
                                                       uint32_t param, const char *context,
                                                       uint16_t count,
                                                       const uint32_t *entries)
{
    static const char fn[] = "tarn_send_protocol_config_change_msg";
    if (context == nullptr) {
        tarn_report(&msg_error_TARN_LIB_INVALID_ARG, "context", fn);
        return 0;
    }
    if (type < 1 || type > 64) {
        tarn_report(&msg_error_TARN_LIB_INVALID_ARG, "type", fn);
        return 0;
    }
    if (count != 0 && entries == nullptr) {
        tarn_report(&msg_error_TARN_LIB_INVALID_ARG, "entries", fn);
        return 0;
    }
    if (!tarn_clt_registered || tarn_clt == nullptr) {
        tarn_report(&msg_error_TARN_CLIENT_UNREGISTERED, fn);
        return 0;
    }
    uint32_t ix = 0;
    if (!cell_check(fn, &ix))
        return 0;
    const uint32_t len = kHeaderSize + 4u * count;
    uint8_t *msg = static_cast<uint8_t *>(malloc(len));
    if (msg == nullptr) {
        tarn_report(&msg_error_TARN_LIB_NOMEM, "tarn_protocol_config_t", fn);
        return 0;
    }
    memset(msg, 0, len);
    auto *cfg = reinterpret_cast<tarn_protocol_config_t *>(msg);
    cfg->type = type;
    cfg->param = param;
    kpipe_strcpy(cfg->context, context, kTextLimit);
    if (name != nullptr)
        kpipe_strcpy(cfg->name, name, kTextLimit);
    cfg->count = count;
    if (count != 0)
        memcpy(msg + kHeaderSize, entries, 4u * count);
    const bus_send_opts_t opts = tarn::send_options();
    const int32_t rc = bus_send(clt_of(ix)->bus_handle, BUS_NODE_LOCAL, 0,
                                BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE, msg, len, nullptr,
                                nullptr, &opts);
    const int err = errno;
    free(msg);
    if (rc == 0)
        return 1;
    tarn_report(&msg_error_TARN_LIBBUS, "bus_send(BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE)",
                static_cast<uint32_t>(err), strerror(err), fn);
    return 0;
}

}  // extern "C"
