/*
 * client: a small client process of both services.  It initialises
 * libtarn, registers a bus handle with the Tarn and Gyre clients, asks
 * about a few contexts and interfaces, walks the fabric topologies with
 * their VLAN sets, and closes everything again.
 *
 * Build against an installed libtarn:
 *     cc -std=c99 client.c $(pkg-config --cflags --libs tarn) -o client
 * Run on a loaded device:
 *     tarnctl load device.json && ./client
 * Exit status: 0 when every step worked, 1 otherwise.
 */
#include <stdio.h>
#include <string.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>
#include <tarnhost/tarnhost.h>
#include <tarnhost/tarnhost_bus.h>

static int fail(const char *what)
{
    fprintf(stderr, "client: %s failed\n", what);
    return 1;
}

int main(void)
{
    tarn_context_info_t ctx;
    tarn_if_context_info_t ifc;
    tarn_table_info_t tpg_info;
    gyre_vlan_bmp_t vlans;
    uint32_t id, ifindex, tpg, handle;
    unsigned contexts = 0, interfaces = 0, topologies = 0;

    printf("device: %s\n", tarnhost_root());
    if (tarn_api_init() != TARN_SUCCESS || tarn_clt == NULL ||
        !tarn_clt->initialized)
        return fail("tarn_api_init (is the device loaded?)");

    /* Registration: a bus handle of our own, known to both clients. */
    handle = bus_bind(0, -1, NULL, "example client");
    if (handle == BUS_HANDLE_NONE)
        return fail("bus_bind");
    if (tarn_register(handle) != TARN_SUCCESS ||
        gyre_register(handle) != TARN_SUCCESS ||
        tarn_track_as_format() != TARN_SUCCESS)
        return fail("registration");
    printf("AS format: %u\n", tarn_get_as_format());

    /* Contexts, by walk and by name. */
    memset(&ctx, 0, sizeof ctx);
    for (id = tarn_get_next_context_info(0, &ctx); id != 0;
         id = tarn_get_next_context_info(id, &ctx)) {
        printf("context %u %s %s\n", id, ctx.name, tarn_state2str(ctx.state));
        ++contexts;
    }
    id = tarn_get_context_id("default");
    printf("context \"default\" has id %u\n", id);
    if (contexts == 0 || id != 1)
        return fail("context queries");

    /* Interfaces with their contexts. */
    memset(&ifc, 0, sizeof ifc);
    for (ifindex = tarn_get_next_if_context_info(0, NULL, &ifc);
         ifindex != 0 && interfaces < 5;
         ifindex = tarn_get_next_if_context_info(ifindex, NULL, &ifc)) {
        printf("interface %u in %s (id %u)\n", ifindex, ifc.context_name,
               ifc.context_id);
        ++interfaces;
    }
    if (interfaces == 0)
        return fail("interface walk");

    /* Fabric topologies and their active VLANs. */
    memset(&tpg_info, 0, sizeof tpg_info);
    for (tpg = gyre_get_first_l2_tpg(&tpg_info);
         tpg != GYRE_TPG_NONE && tpg != 0; tpg = gyre_get_next_l2_tpg(&tpg_info)) {
        memset(&vlans, 0, sizeof vlans);
        if (gyre_get_l2_tpg_act_vlans(tpg, &vlans))
            printf("topology %u vlans %s\n", tpg, gyre_vlans2str(&vlans));
        else
            printf("topology %u vlans -\n", tpg);
        ++topologies;
    }
    printf("%u contexts, %u interfaces shown, %u topologies\n", contexts,
           interfaces, topologies);

    /* Clean close: Gyre first, then Tarn, then the handle. */
    gyre_api_close();
    tarn_api_close();
    if (bus_unbind(handle) != 0)
        return fail("bus_unbind");
    return 0;
}
