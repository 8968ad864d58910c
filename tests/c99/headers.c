/* Compiled with -std=c99 -Werror: the public headers are plain C99. */
#include <string.h>

#include <tarn/tarn.h>
#include <tarn/tarn.h> /* and may be included twice */
#include <tarn/gyre.h>
#include <tarn/version.h>

/* The dispatch halves and the cache operations are reachable from C. */
typedef void (*any_fn)(void);
static const any_fn exported[] = {
    (any_fn)tarn_dispatch_internal, (any_fn)tarn_process_attr_change,
    (any_fn)gyre_cache_tpg_cmp, (any_fn)gyre_cache_find_topo_by_id,
    (any_fn)gyre_cache_add_tpg, (any_fn)gyre_cache_create_l2_tpg,
    (any_fn)gyre_cache_delete_l2_tpg, (any_fn)gyre_cache_build_info,
    (any_fn)gyre_cache_update_ftag, (any_fn)gyre_cache_disabled_resp,
    (any_fn)gyre_cache_get_ftag_l2_tpg, (any_fn)gyre_cache_get_vlan_l2_tpg,
    (any_fn)gyre_cache_get_l2_tpg_ftag, (any_fn)gyre_cache_get_l2_tpg_unicast_ftag,
    (any_fn)gyre_cache_get_ftag_vlans, (any_fn)gyre_cache_get_unicast_ftag_by_vlan,
    (any_fn)gyre_cache_get_vlan_ftag, (any_fn)gyre_cache_dump_info,
    (any_fn)gyre_cache_build_resp_info, (any_fn)gyre_cache_verify_topo,
    (any_fn)gyre_print_resp_dump_info, (any_fn)gyre_api_debug_print_resp_info,
    (any_fn)gyre_cache_debug_print,
};

int main(void)
{
    tarn_context_info_t info;
    size_t i;
    info.state = 2;
    for (i = 0; i < sizeof exported / sizeof exported[0]; ++i)
        if (exported[i] == 0)
            return 1;
    /* The header's version is the one the build installs. */
    if (strcmp(TARN_VERSION_STRING, TARN_PROJECT_VERSION) != 0 ||
        TARN_VERSION_NUMBER != ((TARN_VERSION_MAJOR << 16) | (TARN_VERSION_MINOR << 8) |
                                TARN_VERSION_PATCH))
        return 1;
    return (sizeof(tarn_context_info_t) == 44 && info.state == 2 &&
            TARN_KVS_NOT_FOUND == 0x40480003u) ? 0 : 1;
}
