// Topology names of any content: the id is the leading decimal number of
// the text, and 0xFFFFFFFF for no digits, 0, 4294967295 or beyond.
#include <stdint.h>
#include <string.h>

#include <string>

#include <tarn/gyre.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string name(reinterpret_cast<const char *>(data), size);
    const uint32_t id = gyre_l2_tpg_name2id(name.c_str());
    // The reference: digits up to the first non-digit (or NUL).
    unsigned long long v = 0;
    bool too_big = false;
    for (const char *c = name.c_str(); *c >= '0' && *c <= '9'; ++c) {
        v = v * 10 + static_cast<unsigned>(*c - '0');
        if (v > 0xFFFFFFFFull) {
            too_big = true;
            break;
        }
    }
    const uint32_t expect =
        (too_big || v == 0 || v == 0xFFFFFFFFull) ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
    if (id != expect)
        __builtin_trap();
    return 0;
}
