// AS-number display format tracking.

#include <arpa/inet.h>
#include <string.h>

#include "core/report.h"
#include "core/state.h"
#include "platform/bus.h"
#include "platform/kvs.h"

using tarn::clt_of;
using tarn::tarn_report;

namespace {
constexpr uint32_t kKindAsFormat = 10;
constexpr uint32_t kDefaultAsFormat = 1;
constexpr uint16_t kAttrKindAsFormat = 1;
}  // namespace

extern "C" {

TARN_API uint32_t tarn_get_as_format(void)
{
    return tarn_cache_is_enabled() ? tarn_cache.as_format : kDefaultAsFormat;
}

TARN_API uint32_t tarn_track_as_format(void)
{
    return tarn_enable_cache_mode(1);
}

TARN_API uint32_t tarn_refresh_as_format_info(void)
{
    uint32_t ix = 0;
    if (!tarn::cell_check("tarn_refresh_as_format_info", &ix))
        return 0;
    if (tarn_clt == nullptr)
        return 0;
    uint8_t key_bytes[48] = {0};
    const uint32_t kind = htonl(kKindAsFormat);
    memcpy(key_bytes, &kind, sizeof kind);
    const kvs_datum_t key = {key_bytes, sizeof key_bytes};
    kvs_datum_t value = {nullptr, 0};
    const uint32_t rc = kvs_read(clt_of(ix)->kvs, &key, &value);
    if (rc == 0) {
        tarn_as_format_t record;
        memset(&record, 0, sizeof record);
        tarn_as_format_t *out = &record;
        if (tarn_as_format_to_struct(&out, value.data, value.len, 1) != 0) {
            tarn_report(&msg_error_TARN_LIBAPI_FAILED, "tarn_as_format_to_struct()",
                        "tarn_refresh_as_format_info");
            return 0;
        }
        tarn_cache.as_format = out->format;
        return 1;
    }
    if (rc == KVS_ERR_NOT_FOUND) {
        tarn_cache.as_format = kDefaultAsFormat;
        return 1;
    }
    return 0;
}

TARN_API uint32_t tarn_is_msg_asformat_update(const struct bus_msg *msg)
{
    if (msg == nullptr || bus_opc_get(msg) != BUS_OPC_TARN_ATTR_CHANGE)
        return 0;
    uint32_t len = 0;
    const uint8_t *payload = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
    if (payload == nullptr || len < 4)
        return 0;
    uint16_t kind;
    memcpy(&kind, payload + 2, sizeof kind);
    return kind == kAttrKindAsFormat ? 1 : 0;
}

}  // extern "C"
