/* Compiled with -std=c99 -Werror: the public headers are plain C99. */
#include <tarn/tarn.h>
#include <tarn/tarn.h> /* and may be included twice */

int main(void)
{
    tarn_context_info_t info;
    info.state = 2;
    return (sizeof(tarn_context_info_t) == 44 && info.state == 2 &&
            TARN_KVS_NOT_FOUND == 0x40480003u) ? 0 : 1;
}
