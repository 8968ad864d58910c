// The notification decoder for callers through the C ABI: one document per
// call, rendered by <tarn/notification_json.hpp>.

#include "host/tarnhost_notification.h"

#include <string.h>

#include <tarn/notification.hpp>
#include <tarn/notification_json.hpp>

extern "C" int64_t tarnhost_notification_json(uint32_t what, uint32_t opcode,
                                              const void *payload, uint32_t len, char *buf,
                                              uint32_t size)
{
    if (what != TARNHOST_PAYLOAD_NOTIFICATION && what != TARNHOST_PAYLOAD_DUMP_PAGE)
        return -1;
    const tarn::Decoded d = what == TARNHOST_PAYLOAD_DUMP_PAGE
                                ? tarn::decode_cache_dump_page(payload, len)
                                : tarn::decode_notification(opcode, payload, len);
    const std::string text = tarn::to_json(d);
    if (buf != nullptr && text.size() < size)
        memcpy(buf, text.c_str(), text.size() + 1);
    return static_cast<int64_t>(text.size());
}
