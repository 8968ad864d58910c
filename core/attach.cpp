// Attachment to the cell's shared database, the feature-server variant, and
// the cell manager's record that decides the cell type.

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/bytes.h"
#include "core/report.h"
#include "core/state.h"
#include "platform/featsrv.h"
#include "platform/kvs.h"
#include "platform/supv.h"

using tarn::clt_of;
using tarn::tarn_report;

using tarn::load16;
using tarn::load32;
using tarn::store16;
using tarn::store32;

namespace {

constexpr char kCellMgrUri[] = "volatile:/dev/shm/cell_mgr_kvs";
constexpr char kTarnKvsName[] = "tarn_global_kvs";

// Offsets in the cell manager's record (network byte order when stored).
constexpr size_t kCellMgrWord = 516;
constexpr size_t kCellMgrCell = 520;
constexpr size_t kCellMgrCount = 522;
constexpr size_t kCellMgrList = 526;

}  // namespace

extern "C" {

// Opens the cell manager's database (left open) and hands back a heap copy
// of its record, converted to host order.  Its messages name it
// "tarn_open_one_kvs".  A record too short for its fields reads as absent;
// one whose count runs past its end is refused.
uint32_t tarn_read_cell_mgr_record(void **copy)
{
    char uri[256];
    snprintf(uri, sizeof uri, "%s", kCellMgrUri);
    uint32_t rc = kvs_open(uri, 1, 0, 0, 0);
    if (rc != 0 && rc != KVS_ERR_ALREADY_OPEN)
        return rc;
    const uint8_t key_bytes[5] = {0x1C, 0, 0, 0, 0};
    const kvs_datum_t key = {key_bytes, sizeof key_bytes};
    kvs_datum_t value = {nullptr, 0};
    rc = kvs_read(uri, &key, &value);
    if (rc != 0)
        return rc;
    const uint8_t *src = static_cast<const uint8_t *>(value.data);
    if (src == nullptr || value.len < kCellMgrList)
        return KVS_ERR_NOT_FOUND;
    const uint64_t count = ntohl(load32(src + kCellMgrCount));
    if (kCellMgrList + 2 * count > value.len)
        return KVS_ERR_INVALID;
    uint8_t *rec = static_cast<uint8_t *>(malloc(value.len));
    if (rec == nullptr)
        return TARN_ERR_NOMEM;
    memcpy(rec, src, value.len);
    if (copy == nullptr) {
        free(rec);
        return KVS_ERR_INVALID;
    }
    *copy = rec;
    store16(rec + kCellMgrCell, ntohs(load16(rec + kCellMgrCell)));
    store32(rec + kCellMgrCount, ntohl(load32(rec + kCellMgrCount)));
    for (uint64_t i = 0; i < count; ++i) {
        uint8_t *p = rec + kCellMgrList + 2 * i;
        store16(p, ntohs(load16(p)));
    }
    store32(rec + kCellMgrWord, ntohl(load32(rec + kCellMgrWord)));
    return 0;
}

TARN_API uint32_t tarn_get_cell_type(void)
{
    void *copy = nullptr;
    if (tarn_read_cell_mgr_record(&copy) != 0) {
        free(copy);
        return 0;
    }
    const uint16_t designated = load16(static_cast<uint8_t *>(copy) + kCellMgrCell);
    const uint32_t running = supv_get_cell_ctxt() & 0xffffu;
    free(copy);
    return designated == running ? 1 : 0;
}

TARN_API uint32_t tarn_init_clt_kvs_uri(uint32_t cell_ix, uint32_t *deferred)
{
    if (tarn_clt == nullptr) {
        tarn_report(&msg_error_TARN_NOALLOC, "tarn_clt struct is NULL",
                    "tarn_init_clt_kvs_uri");
        return 0;
    }
    // Only cell index 0 has a record.
    if (cell_ix != 0) {
        tarn_report(&msg_error_TARN_LIB_INVALID_ARG, "cell_ix",
                    "tarn_init_clt_kvs_uri");
        return 0;
    }
    const char *running = supv_running_cfg_uri_get();
    if (running == nullptr) {
        tarn_report(&msg_error_TARN_SUPV, "supv_running_cfg_uri_get()", 0u,
                    "NULL", "tarn_init_clt_kvs_uri");
        if (deferred != nullptr)
            *deferred = 1;
        return 0;
    }
    const char *uri = supv_uri_complete(running, 0, kTarnKvsName);
    if (uri == nullptr)
        return 0;
    snprintf(clt_of(cell_ix)->kvs, sizeof clt_of(cell_ix)->kvs, "%s", uri);
    return 1;
}

TARN_API uint32_t tarn_featsrv_kvs_init(void)
{
    uint32_t ix = 0;
    const int32_t early = tarn::begin_init("tarn_featsrv_kvs_init", &ix);
    if (early >= 0)
        return static_cast<uint32_t>(early);
    uint32_t deferred = 0;
    if (!tarn_init_clt_kvs_uri(ix, &deferred))
        return deferred ? 1 : 0;

    static const uint32_t kMoreOpcodes[1] = {BUS_OPC_TARN_FEATSRV_A};
    static const featsrv_kvs_entry_t kEntry = {
        kTarnKvsName, 1, BUS_OPC_TARN_FEATSRV_B, kMoreOpcodes, 2, {0, 0, 0}};
    static const featsrv_kvs_params_t kParams = {1, {0, 0, 0}, &kEntry};
    if (featsrv_kvs_publisher_lib_init(&kParams) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED,
                    "featsrv_kvs_publisher_lib_init()", "tarn_featsrv_kvs_init");
        return 0;
    }
    const uint32_t cell_type = tarn_get_cell_type();
    clt_of(ix)->cell_type = cell_type;
    clt_of(ix)->initialized = 1;
    // Publishers run without debug printing.
    debug_enabled = 0;
    return 1;
}

TARN_API void tarn_featsrv_kvs_close(void)
{
    if (tarn_clt == nullptr)
        return;
    uint32_t ix = 0;
    if (!tarn_get_cell_ctx(&ix))
        return;
    // The feature-server library owns the attachment: nothing is closed.
    memset(clt_of(ix), 0, sizeof(tarn_clt_t));
}

}  // extern "C"
