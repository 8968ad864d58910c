// Counts of the variable-length store records at the size where their
// byte length would pass 32 bits: the count of 188-byte context blocks
// saturates there instead of wrapping round to a small length.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "records/tarn_store_callbacks.h"

namespace {

TEST(RecordLimits, ContextBlockCountSaturatesWhereItsSizePasses32Bits)
{
    const uint32_t most = 0xFFFFFFFFu / TARN_KVS_CTX_ENTRY_SIZE;  // 22845570
    ASSERT_EQ(22845570u, most);
    uint32_t count = most;
    EXPECT_EQ(most * TARN_KVS_CTX_ENTRY_SIZE, tarn_store_kvs_ctx_data_count(&count));
    EXPECT_EQ(4294967160u, tarn_store_kvs_ctx_data_count(&count));
    for (uint32_t n : {most + 1, 0x80000000u / TARN_KVS_CTX_ENTRY_SIZE * 2 + 1, 0xFFFFFFFFu}) {
        SCOPED_TRACE(n);
        count = n;
        EXPECT_EQ(0xFFFFFFFFu, tarn_store_kvs_ctx_data_count(&count));
    }
    // Plain element counts are the count itself, to the last value.
    count = 0xFFFFFFFFu;
    EXPECT_EQ(0xFFFFFFFFu, tarn_store_if_kvs_data_count(&count));
}

// A record whose count promises more blocks than an encoding of 32-bit
// lengths can hold cannot be encoded: the size is refused, not wrapped.
TEST(RecordLimits, ContextBlocksPast32BitsCannotBeEncoded)
{
    uint32_t rec[2] = {22845571u, 0};
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_NE(0u, tarn_store_kvs_ctx_data_to_tlv(reinterpret_cast<tarn_store_kvs_ctx_data_t *>(rec),
                                                 &buf, &len, 0, nullptr, 0));
    EXPECT_EQ(nullptr, buf);
    free(buf);
}

}  // namespace
