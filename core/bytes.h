// Numbers at fixed offsets of payloads and records, in host byte order.
// Copies, not casts: the bytes need not be aligned.
#ifndef TARN_CORE_BYTES_H
#define TARN_CORE_BYTES_H

#include <stdint.h>
#include <string.h>

namespace tarn {

inline uint16_t load16(const void *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline uint32_t load32(const void *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

inline void store16(void *p, uint16_t v) { memcpy(p, &v, sizeof v); }
inline void store32(void *p, uint32_t v) { memcpy(p, &v, sizeof v); }

}  // namespace tarn

#endif
