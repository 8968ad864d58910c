#include "tools/announce_journal.h"

#include <string.h>

namespace tarndev {

namespace {
constexpr size_t kHeader = 8;  // opcode, payload length
}

Bytes journal_key()
{
    static const char kKey[] = "pending";
    return Bytes(kKey, kKey + sizeof kKey - 1);
}

Bytes journal_value(const Unannounced &u)
{
    Bytes v(kHeader);
    const uint32_t len = static_cast<uint32_t>(u.payload.size());
    memcpy(v.data(), &u.opcode, 4);
    memcpy(v.data() + 4, &len, 4);
    v.insert(v.end(), u.payload.begin(), u.payload.end());
    v.insert(v.end(), u.what.begin(), u.what.end());
    return v;
}

bool journal_decode(const uint8_t *v, size_t len, Unannounced *out)
{
    if (v == nullptr || len < kHeader)
        return false;
    uint32_t payload_len;
    memcpy(&out->opcode, v, 4);
    memcpy(&payload_len, v + 4, 4);
    if (payload_len > len - kHeader)
        return false;
    out->payload.assign(v + kHeader, v + kHeader + payload_len);
    out->what.assign(reinterpret_cast<const char *>(v) + kHeader + payload_len,
                     len - kHeader - payload_len);
    return true;
}

}  // namespace tarndev
