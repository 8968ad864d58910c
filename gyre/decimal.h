// Set elements (0 to 4095) as decimal text, from a table of their digits
// made at compile time: writing a number is one 4-byte load and one 4-byte
// store, with no division and no branch on its length.
#ifndef TARN_GYRE_DECIMAL_H
#define TARN_GYRE_DECIMAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace gyre {

constexpr uint32_t kDecimalCount = 4096;

// The digits of each number, in text order, followed by zero bytes up to
// four ("7\0\0\0", "42\0\0", "4095").
struct DecimalTable {
    char digits[kDecimalCount][4];
    constexpr DecimalTable() : digits()
    {
        for (uint32_t v = 0; v < kDecimalCount; ++v) {
            const uint32_t len = v < 10 ? 1 : v < 100 ? 2 : v < 1000 ? 3 : 4;
            uint32_t rest = v;
            for (uint32_t i = len; i-- > 0;) {
                digits[v][i] = static_cast<char>('0' + rest % 10);
                rest /= 10;
            }
        }
    }
};

inline constexpr DecimalTable kDecimal{};

// Writes the four bytes of v's table entry at p and returns p plus v's
// length: up to 4 - length bytes past the number are overwritten with
// zeros, so the caller must own them and write them again (or mean them).
// v must be below kDecimalCount.
inline __attribute__((always_inline)) char *put_decimal_wide(char *p, uint32_t v)
{
    uint32_t word;
    memcpy(&word, kDecimal.digits[v], 4);
    memcpy(p, &word, 4);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // The highest non-zero byte is the last digit: its bit index (at least
    // 4, since digits are 0x30 to 0x39) gives the length in one step.
    const uint32_t length = (31u - static_cast<uint32_t>(__builtin_clz(word)) + 8u) >> 3;
#else
    const uint32_t length = 1u + (v > 9) + (v > 99) + (v > 999);
#endif
    return p + length;
}

// Writes exactly v's digits (as "%d" does) and returns the end.
inline char *put_decimal(char *p, uint32_t v)
{
    const size_t length = v < 10 ? 1 : v < 100 ? 2 : v < 1000 ? 3 : 4;
    memcpy(p, kDecimal.digits[v], length);
    return p + length;
}

}  // namespace gyre

#endif
