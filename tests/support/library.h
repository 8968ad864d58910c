// Test support: bringing libtarn's process state back to a fresh start, and
// a simulated device to run it against.
#ifndef TARN_TESTS_SUPPORT_LIBRARY_H
#define TARN_TESTS_SUPPORT_LIBRARY_H

#include <stdint.h>

#include <string>
#include <vector>

namespace tarntest {

// Frees the client record and clears every process flag, as in a process
// that has not yet called the library; the Gyre side too (its cache freed,
// cache and initialised flags cleared, no database handle).
void reset_library();

// The cell database URI once the device is up with the default running URI.
std::string tarn_kvs_uri();

// Writes the cell manager's record: `designated` at 520, `cells` from 526
// (count at 522), word 516 = 0x01020304; `pad_to` bytes at least.
void write_cell_mgr_record(uint16_t designated,
                           const std::vector<uint16_t> &cells,
                           size_t pad_to = 0);
// Writes raw bytes as the cell manager's record.
void write_cell_mgr_bytes(const std::vector<uint8_t> &bytes);

// The rendered line of a library-form report for this process.
std::string pid_text();

}  // namespace tarntest

#endif
