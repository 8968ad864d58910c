#include "library.h"

#include <arpa/inet.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "core/state.h"
#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "platform/alloctrack.h"

namespace tarntest {

void reset_library()
{
    // The Gyre side first: its cache is freed through the memory tracker.
    gyre_cache_delete_info();
    gyre_cache_enabled = 0;
    gyre_api_is_initialized = 0;
    gyre_kvs_handle = nullptr;
    if (tarn_clt != nullptr)
        alloctrack_free(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_TARN_CLT, tarn_clt);
    tarn_clt = nullptr;
    tarn_clt_registered = 0;
    debug_enabled = 0;
    tarn_cache.tracked_mask = 0;
    tarn_cache.as_format = 0;
}

std::string tarn_kvs_uri()
{
    return std::string(TARNHOST_RUNNING_URI) + "/tarn_global_kvs";
}

void write_cell_mgr_bytes(const std::vector<uint8_t> &bytes)
{
    const uint8_t key[5] = {0x1C, 0, 0, 0, 0};
    ASSERT_EQ(0u, tarnhost_kvs_put("volatile:/dev/shm/cell_mgr_kvs", key,
                                   sizeof key, bytes.data(),
                                   static_cast<uint32_t>(bytes.size())));
}

void write_cell_mgr_record(uint16_t designated,
                           const std::vector<uint16_t> &cells, size_t pad_to)
{
    std::vector<uint8_t> rec(526 + 2 * cells.size(), 0xAA);
    if (rec.size() < pad_to)
        rec.resize(pad_to, 0xAA);
    const uint32_t word = htonl(0x01020304u);
    const uint16_t cell = htons(designated);
    const uint32_t count = htonl(static_cast<uint32_t>(cells.size()));
    memcpy(&rec[516], &word, 4);
    memcpy(&rec[520], &cell, 2);
    memcpy(&rec[522], &count, 4);
    for (size_t i = 0; i < cells.size(); ++i) {
        const uint16_t c = htons(cells[i]);
        memcpy(&rec[526 + 2 * i], &c, 2);
    }
    write_cell_mgr_bytes(rec);
}

std::string pid_text()
{
    return std::to_string(static_cast<int>(getpid()));
}

}  // namespace tarntest
