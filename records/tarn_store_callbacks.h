// Element-count callbacks of the counted Tarn store records; the table
// entries of tarn_store_if_kvs_data_tbl and tarn_store_kvs_ctx_data_tbl.
// Internal: the exported custom callbacks are declared in <tarn/tarn.h>.
#ifndef TARN_RECORDS_TARN_STORE_CALLBACKS_H
#define TARN_RECORDS_TARN_STORE_CALLBACKS_H

#include <stdint.h>

// Number of tarn_tlv_if_data_t entries: the record's first word.
uint32_t tarn_store_if_kvs_data_count(const void *record);
// Number of raw bytes: the record's first word times 188.
uint32_t tarn_store_kvs_ctx_data_count(const void *record);

#endif
