// dump-cache --verify, for clients built on the host's client helper: every
// answer of the client's caches against the database path.
#ifndef TARN_TOOLS_TARNCTL_VERIFY_H
#define TARN_TOOLS_TARNCTL_VERIFY_H

#include <stddef.h>
#include <stdint.h>

#include <set>

namespace tarnctl {

struct VerifyCount {
    bool helper = false;      // the client answered the inspection request
    size_t compared = 0;      // answers compared
    size_t divergences = 0;   // real disagreements
    size_t intended = 0;      // disagreements the library makes on purpose
};

// Asks the client at `sap` for its answers about `cached` (the topologies
// its dump holds) and every topology of the database, prints each
// disagreement ("verify: ..."), and counts.  The caller has initialised
// libtarn in this process with every cache off.
VerifyCount verify_answers(uint32_t requester, int32_t sap, const std::set<uint32_t> &cached,
                           uint32_t timeout_ms);

}  // namespace tarnctl

#endif
