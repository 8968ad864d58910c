#include "tools/announce_journal.h"

#include <string.h>

#include <algorithm>

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
    // Sized once and filled in place: growing the vector after the header
    // made GCC 12 see a write past the header's 8 bytes (-Warray-bounds).
    const uint32_t len = static_cast<uint32_t>(u.payload.size());
    Bytes v(kHeader + u.payload.size() + u.what.size());
    memcpy(v.data(), &u.opcode, 4);
    memcpy(v.data() + 4, &len, 4);
    std::copy(u.payload.begin(), u.payload.end(), v.begin() + kHeader);
    std::copy(u.what.begin(), u.what.end(), v.begin() + kHeader + u.payload.size());
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
