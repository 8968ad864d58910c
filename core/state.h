// Process-wide state of the Tarn client that is not exported.
#ifndef TARN_CORE_STATE_H
#define TARN_CORE_STATE_H

#include <stdint.h>

#include <tarn/tarn.h>

extern "C" {
// Set by tarn_register and gyre_register, cleared by tarn_deregister.
extern uint32_t tarn_clt_registered;
// Set by tarn_api_debug_common; tarn_featsrv_kvs_init clears it.
extern uint32_t debug_enabled;
}

namespace tarn {

// The cell check that opens every public operation: reports
// TARN_CELL ("IS_CELL_IS_VALID()" or "ctx range", fn) and returns false
// outside cell 1; in cell 1 stores cell index 0 and returns true.
bool cell_check(const char *fn, uint32_t *cell_ix);

// The opening steps of tarn_api_init and tarn_featsrv_kvs_init: the cell
// check, the already-initialised short cut, the memory types and the
// record.  -1 to go on (with *cell_ix set), else the result to return.
int32_t begin_init(const char *fn, uint32_t *cell_ix);

// The client record of a cell index: the address is computed from the index
// although only index 0 is ever allocated.
inline tarn_clt_t *clt_of(uint32_t cell_ix) { return tarn_clt + cell_ix; }

}  // namespace tarn

#endif
