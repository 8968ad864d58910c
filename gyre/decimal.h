// Set elements (0 to 4095) as decimal text, from a table of their digits
// and lengths made at compile time (20 KiB): writing a number is one 4-byte
// copy and one length load, with no division and no branch on its length.
#ifndef TARN_GYRE_DECIMAL_H
#define TARN_GYRE_DECIMAL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

namespace gyre {

constexpr uint32_t kDecimalCount = 4096;

// The digits of each number, in text order, followed by zero bytes up to
// four ("7\0\0\0", "42\0\0", "4095"), and its length.
struct DecimalTable {
    char digits[kDecimalCount][4];
    uint8_t length[kDecimalCount];
    constexpr DecimalTable() : digits(), length()
    {
        for (uint32_t v = 0; v < kDecimalCount; ++v) {
            const uint32_t len = v < 10 ? 1 : v < 100 ? 2 : v < 1000 ? 3 : 4;
            length[v] = static_cast<uint8_t>(len);
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
    memcpy(p, kDecimal.digits[v], 4);
    return p + kDecimal.length[v];
}

// The number of digits of v (below kDecimalCount).
inline uint32_t decimal_length(uint32_t v) { return kDecimal.length[v]; }

// Writes exactly v's digits (as "%d" does) and returns the end.
inline char *put_decimal(char *p, uint32_t v)
{
    const size_t length = kDecimal.length[v];
    memcpy(p, kDecimal.digits[v], length);
    return p + length;
}

// Each number led by a comma, for the comma notation: ',' and its digits,
// zero bytes up to seven, and in the eighth byte the length with the comma
// (",7" is 2, ",4095" is 5).  32 KiB.
struct CommaDecimalTable {
    char text[kDecimalCount][8];
    constexpr CommaDecimalTable() : text()
    {
        for (uint32_t v = 0; v < kDecimalCount; ++v) {
            text[v][0] = ',';
            for (uint32_t i = 0; i < 4; ++i)
                text[v][1 + i] = kDecimal.digits[v][i];
            text[v][7] = static_cast<char>(1 + kDecimal.length[v]);
        }
    }
};

inline constexpr CommaDecimalTable kCommaDecimal{};

// Writes the eight bytes of v's comma entry at p and returns the end of
// ",<v>": up to seven bytes past it are overwritten, as with
// put_decimal_wide.  v must be below kDecimalCount.
inline __attribute__((always_inline)) char *put_comma_decimal_wide(char *p, uint32_t v)
{
    memcpy(p, kCommaDecimal.text[v], 8);
    return p + kCommaDecimal.text[v][7];
}

}  // namespace gyre

#endif
