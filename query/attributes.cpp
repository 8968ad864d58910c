// Per-context attributes: route limits, site-of-origin, VPN id.

#include <stdio.h>

#include "platform/nic.h"
#include "query/frame.h"

using namespace tarn;

extern "C" {

// The caller's record has no place for the stored second limit word; its
// second word carries the stored third one.
TARN_API uint32_t tarn_get_rt_limits_info(uint32_t table_id, tarn_rt_limits_t *limits)
{
    static const char fn[] = "tarn_get_rt_limits_info";
    if (null_result(limits, "limits", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "route-limits", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_RT_LIMITS);
    key.put_u32(4, table_id);
    kvs_datum_t value;
    if (!read<100>(ix, key, &value, fn, [table_id](char *buf, size_t n) {
            snprintf(buf, n, "Table 0x%lx", static_cast<unsigned long>(table_id));
        }))
        return 0;
    tarn_tib_rt_limits_t stored;
    memset(&stored, 0, sizeof stored);
    if (!decode(tarn_rt_limits_info_to_struct, value, &stored,
                "tarn_rt_limits_info_to_struct()", fn))
        return 0;
    limits->table_id = table_id;
    limits->limit1 = stored.limit1;
    limits->limit3 = stored.limit3;
    limits->setting1 = stored.setting1;
    limits->setting2 = stored.setting2;
    return 1;
}

TARN_API uint32_t tarn_get_if_soo_info(uint32_t ifindex, tarn_soo_info_t *soo_info)
{
    static const char fn[] = "tarn_get_if_soo_info";
    if (null_result(soo_info, "soo_info", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "Site-of-Origin", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_SOO);
    key.put_u32(4, ifindex);
    kvs_datum_t value;
    if (!read<100>(ix, key, &value, fn, [ifindex](char *buf, size_t n) {
            snprintf(buf, n, "interface %s", nic_get_if_name(ifindex));
        }))
        return 0;
    return decode(tarn_soo_info_to_struct, value, soo_info, "tarn_soo_info_to_struct()",
                  fn) ? 1 : 0;
}

TARN_API uint32_t tarn_get_context_vpnid(const char *vrf_name, tarn_vpnid_info_t *vpnid)
{
    static const char fn[] = "tarn_get_context_vpnid";
    if (null_result(vpnid, "vpnid", fn))
        return 0;
    uint32_t ix = 0;
    if (!enter(fn, "vpn id", &ix))
        return 0;
    TarnKey key(TARN_KVS_KIND_VPNID);
    key.put_name(4, vrf_name);
    kvs_datum_t value;
    if (!read<100>(ix, key, &value, fn, [vrf_name](char *buf, size_t n) {
            snprintf(buf, n, "vrf %s", printable(vrf_name));
        }))
        return 0;
    return decode(tarn_vpnid_info_to_struct, value, vpnid, "tarn_vpnid_info_to_struct()",
                  fn) ? 1 : 0;
}

}  // extern "C"
