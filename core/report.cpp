// The parts of the reporting pattern that are the same for every message.

#include "core/report.h"

#include <ctype.h>
#include <string.h>

#include "platform/kpipe.h"

namespace tarn {

namespace {
char g_facility_upper[64];
}

const char *tarn_facility_upper(const char *name)
{
    size_t i = 0;
    if (name != nullptr) {
        for (; name[i] != '\0' && i < sizeof g_facility_upper - 1; ++i)
            g_facility_upper[i] = static_cast<char>(
                toupper(static_cast<unsigned char>(name[i])));
    }
    g_facility_upper[i] = '\0';
    return g_facility_upper;
}

void fill_vmsg_params()
{
    unsigned char *p = syslog_vmsg_params;
    const uint32_t one = 1, zero = 0;
    memset(p, 0, SYSLOG_VMSG_PARAMS_SIZE);
    memcpy(p + 16, &zero, sizeof zero);
    memcpy(p + 20, &zero, sizeof zero);
    strncpy(reinterpret_cast<char *>(p + 24), syslog_preamble, 40);
    memcpy(p + 64, &one, sizeof one);
    p[72] = ' ';
    p[73] = ' ';
    memcpy(p + 0, &one, sizeof one);
}

}  // namespace tarn
