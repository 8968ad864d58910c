// Enum-to-text tables used in show output.

#include <tarn/tarn.h>

namespace {

template <size_t N>
const char *row(const char *const (&rows)[N], uint32_t index)
{
    return index < N ? rows[index] : "<unknown>";
}

const char *const kStates[] = {"None", "Down", "Up"};
const char *const kReasons[] = {"--", "Admin Down", "Admin Down Pending",
                                "Delete Holddown", "Delete Pending"};
const char *const kAddressFamilies[] = {"None", "IPv4", "IPv6"};

}  // namespace

extern "C" {

TARN_API const char *tarn_state2str(uint32_t state)
{
    return row(kStates, state);
}

TARN_API const char *tarn_reason2str(uint32_t reason)
{
    return row(kReasons, reason);
}

TARN_API const char *tarn_af_ix2str(uint32_t af)
{
    return row(kAddressFamilies, af);
}

}  // extern "C"
