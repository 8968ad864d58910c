/*
 * frame_demo: brings a simulated device up in the host root named by
 * TARNHOST_ROOT and walks libtarn's start-up against it, saying what each
 * step did.  Built with the project; run it by hand:
 *   TARNHOST_ROOT=/tmp/frame build/x86_64/tools/frame_demo
 */
#include <stdio.h>
#include <string.h>

#include <tarn/tarn.h>

#include "host/tarnhost.h"

static int write_cell_manager(unsigned designated)
{
    unsigned char rec[528];
    const unsigned char key[5] = {0x1C, 0, 0, 0, 0};
    memset(rec, 0, sizeof rec);
    rec[520] = (unsigned char)(designated >> 8); /* network byte order */
    rec[521] = (unsigned char)designated;
    rec[525] = 1;                                /* one cell follows   */
    rec[527] = 1;
    return (int)tarnhost_kvs_put("volatile:/dev/shm/cell_mgr_kvs", key,
                                 sizeof key, rec, sizeof rec);
}

int main(void)
{
    printf("host root: %s\n", tarnhost_root());
    if (tarnhost_root_prepare() != 0) {
        fprintf(stderr, "frame_demo: cannot prepare the host root\n");
        return 1;
    }
    tarnhost_capture(1);

    printf("tarn_api_init before the device is up: %u (deferred, initialized=%u)\n",
           tarn_api_init(), tarn_clt ? tarn_clt->initialized : 0);
    if (tarnhost_device_up(NULL) != 0 || write_cell_manager(1) != 0) {
        fprintf(stderr, "frame_demo: cannot bring the device up\n");
        return 1;
    }
    printf("device up: running configuration %s\n", TARNHOST_RUNNING_URI);

    printf("tarn_api_init: %u\n", tarn_api_init());
    printf("  database: %s\n", tarn_clt->kvs);
    printf("  cell type: %u (the cell manager designates cell 1)\n",
           tarn_clt->cell_type);
    printf("  again: %u (already initialised)\n", tarn_api_init());
    printf("tarn_state2str(2)=%s tarn_reason2str(3)=%s tarn_af_ix2str(2)=%s\n",
           tarn_state2str(2), tarn_reason2str(3), tarn_af_ix2str(2));

    tarn_api_close();
    printf("tarn_api_close: initialized=%u\n", tarn_clt->initialized);

    tarnhost_cell_set(2);
    printf("tarn_api_init in cell 2: %u\n", tarn_api_init());
    tarnhost_cell_reset();

    printf("log lines of this run:\n");
    for (size_t i = 0; i < tarnhost_capture_count(TARNHOST_CH_SYSLOG); ++i)
        printf("  %s\n", tarnhost_capture_line(TARNHOST_CH_SYSLOG, i));
    return 0;
}
