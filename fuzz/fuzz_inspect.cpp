// The host's inspection request and answer as they arrive from another
// process: any bytes either decode to something that encodes back to the
// same bytes, or are refused.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "host/client/inspect.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 1u << 20)
        return 0;
    const uint8_t *p = data + 1;
    const uint32_t len = static_cast<uint32_t>(size - 1);
    // Copied so that a read past the end is a finding, not luck.
    std::vector<uint8_t> bytes(p, p + len);
    const uint8_t *b = bytes.empty() ? nullptr : bytes.data();
    if (data[0] & 1) {
        tarnhost_client::Question q;
        uint32_t nonce = 0, offset = 0;
        if (tarnhost_client::decode_request(b, len, &q, &nonce, &offset)) {
            const std::vector<uint8_t> again =
                tarnhost_client::encode_request(q, nonce, offset);
            if (again != bytes)
                abort();
        }
    } else {
        uint32_t nonce = 0, total = 0, offset = 0;
        std::string chunk;
        if (tarnhost_client::decode_answer(b, len, &nonce, &total, &offset, &chunk)) {
            if (offset > total || chunk.size() > total - offset || chunk.size() + 24 != len)
                abort();
        }
    }
    return 0;
}
