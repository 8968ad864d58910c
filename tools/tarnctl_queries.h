// Walks that several tarnctl commands make through libtarn.
#ifndef TARN_TOOLS_TARNCTL_QUERIES_H
#define TARN_TOOLS_TARNCTL_QUERIES_H

#include <stdint.h>

#include <vector>

namespace tarnctl {

// Every layer-2 topology id, in the order of the topology walk
// (gyre_get_first_l2_tpg, gyre_get_next_l2_tpg).
std::vector<uint32_t> all_topologies();

}  // namespace tarnctl

#endif
