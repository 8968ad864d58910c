// Walks that several tarnctl commands make through libtarn.

#include "tools/tarnctl_queries.h"

#include <string.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

namespace tarnctl {

std::vector<uint32_t> all_topologies()
{
    std::vector<uint32_t> out;
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t t = gyre_get_first_l2_tpg(&info); t != GYRE_TPG_NONE && t != 0;
         t = gyre_get_next_l2_tpg(&info))
        out.push_back(t);
    return out;
}

}  // namespace tarnctl
